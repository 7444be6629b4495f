#pragma once
// Memory straight from the system for large buffers, given back to it whole when freed. The
// heap keeps much of what it frees for later, so large buffers that grow and go one after
// another would stay in the process long after their connections.

#include <cstddef>

namespace zq {

// bytes of memory whose pages the system backs as they are first touched (where it can); null
// when it gives none.
char* allocate_pages(std::size_t bytes);
// Gives back what allocate_pages gave, with the same size; null does nothing.
void free_pages(char* pages, std::size_t bytes);

}  // namespace zq
