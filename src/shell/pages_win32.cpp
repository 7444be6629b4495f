#include "shell/pages.h"

#include <windows.h>

namespace zq {

char* allocate_pages(std::size_t bytes) {
    return static_cast<char*>(VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

void free_pages(char* pages, std::size_t) {
    if (pages) VirtualFree(pages, 0, MEM_RELEASE);
}

}  // namespace zq
