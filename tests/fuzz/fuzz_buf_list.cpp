// Any sequence of operations on a buffer list: writes, appends, rewinds, line reads, seeks and
// resets in any order must stay inside the blocks and the caller's buffers. Each operation is one
// byte (the low three bits choose it) followed by its argument byte where it takes one.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "libmgmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    buf_list *list = buf_list_new(1 + data[0] % 64); // small blocks: every boundary is met
    buf_list *other = buf_list_new(16);
    std::vector<char> out(256);
    for (size_t at = 1; list && other && at < size;) {
        const uint8_t op = data[at++], arg = at < size ? data[at] : 0;
        uint32_t len = arg;
        const bool takes_arg = (0x5d >> (op & 7)) & 1; // operations 0, 2, 3, 4 and 6
        at += takes_arg;
        switch (op & 7) {
        case 0: // the next arg bytes (as many as there are)
            len = uint32_t(std::min<size_t>(arg, size - std::min(at, size)));
            buf_list_write(list, data + at, len);
            at += len;
            break;
        case 1: buf_list_rewind(list); break;
        case 2: buf_list_get_line(list, out.data(), &len); break;
        case 3: buf_list_get_exact_lines(list, out.data(), &len); break;
        case 4: buf_list_seek(list, int8_t(arg), op >> 3 & 3); break; // whence from bits 3 and 4
        case 5: buf_list_write(other, "x\n", 2), buf_list_copy_append(list, other); break;
        case 6: buf_list_print(list, "%u|", unsigned{arg}); break;
        default: buf_list_empty(list); if (op & 8) buf_list_reset(list);
        }
    }
    buf_list_free(other);
    buf_list_free(list);
    return 0;
}
