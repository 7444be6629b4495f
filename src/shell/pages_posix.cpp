#include "shell/pages.h"

#include <sys/mman.h>

namespace zq {

char* allocate_pages(std::size_t bytes) {
    void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : static_cast<char*>(p);
}

void free_pages(char* pages, std::size_t bytes) {
    if (pages) ::munmap(pages, bytes);
}

}  // namespace zq
