/* The umbrella header compiles as C11 and its names link from C. */
#include "libmgmt.h"
#include "mgmt/records_gen.h" /* every record type, with its layout checks */

#include <string.h>

int main(void) {
    mgiInfo info;
    init_mgi_info_basic(&info);
    if (sizeof(mgiInfo) != 3160 || info.rqt_timeout != 96 || strcmp(info.err_buf, "magic!\n") != 0) return 1;
    return get_mgi_rsp_data_num(44) == 388 ? 0 : 1;
}
