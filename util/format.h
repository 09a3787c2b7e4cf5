// Formatting into a stack buffer first and a growing heap block when the text
// does not fit: the rule shared by the buffer list and the terminal output.
#ifndef MGMT_UTIL_FORMAT_H
#define MGMT_UTIL_FORMAT_H

#include <cstdarg>
#include <cstddef>

namespace mgmt {

struct Formatted {
    const char *text = nullptr; // the stack buffer or the heap block
    int len = -1;               // the formatter's result
    char *heap = nullptr;       // the block to free, or the last one held when growing failed
    bool failed = false;        // realloc failed; text is null
};

// Formats into the zeroed stack buffer; when the result, taken as unsigned, is
// above its size less one, formats again into a heap block whose size starts
// at the stack buffer's and, after each try, doubles on a negative result or
// becomes the result plus one, until the result is below the size.
Formatted format_growing(char *stack, size_t stack_size, const char *fmt, va_list ap);

} // namespace mgmt

#endif
