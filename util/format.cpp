#include "util/format.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mgmt {

Formatted format_growing(char *stack, size_t stack_size, const char *fmt, va_list ap) {
    Formatted f;
    std::memset(stack, 0, stack_size);
    va_list again;
    va_copy(again, ap);
    int r = std::vsnprintf(stack, stack_size, fmt, again);
    va_end(again);
    if (static_cast<unsigned>(r) <= stack_size - 1) {
        f.text = stack;
        f.len = r;
        return f;
    }
    size_t size = stack_size;
    for (;;) {
        size = r < 0 ? size * 2 : static_cast<size_t>(r) + 1;
        auto *grown = static_cast<char *>(std::realloc(f.heap, size));
        if (!grown) {
            f.failed = true;
            return f;
        }
        f.heap = grown;
        va_copy(again, ap);
        r = std::vsnprintf(f.heap, size, fmt, again);
        va_end(again);
        if (r >= 0 && static_cast<size_t>(r) < size) break;
    }
    f.text = f.heap;
    f.len = r;
    return f;
}

} // namespace mgmt
