// The umbrella header compiles as C++ and its names keep C linkage.
#include "libmgmt.h"

#include <cstring>

int main() {
    mgiInfo info;
    init_mgi_info_basic(&info);
    uint32_t words[10] = {0xe0001, 0x20401, 0};
    if (get_mgi_target_len(words) != 2) return 1;
    return std::strcmp(info.err_buf, "magic!\n") == 0 ? 0 : 1;
}
