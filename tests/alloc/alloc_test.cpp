// A request on the plain family allocates nothing once the thread's pair and
// its reply socket exist. This program counts the heap allocations of each
// thread with the allocation stand-ins of faults.h.
#include <gtest/gtest.h>

#include <cstring>

#include "mgmt/mgi.h"
#include "faults.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

const uint32_t kTarget[10] = {0xe0001, 0};

int on_record(void *) { return 0; }
int on_answer(void *, uint32_t *, void *, uint32_t *, void *, uint32_t *, void *) { return 0; }

// One set through the manager and one get from the application, the way a
// front end does them on the thread's pair.
void one_request_each_road() {
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 1);
    init_mgi_exchange_r(info.mgi_buf);
    unsigned char *record = info.mgi_buf->sbuf + MGI_HDR_LEN;
    std::memset(record, 7, 16);
    prepare_mgi_exchange_r(info.mgi_buf, kTarget, 0, 1, 16, 0, 0, 1, 0, 0, 0, 0, 0, record);
    ASSERT_EQ(make_mgi_exchange_with_context(&info, on_record, 16), 0);

    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 2);
    prepare_mgi_exchange_direct_r(info.mgi_buf, kTarget, 2, 0, 0, 0, 0);
    unsigned char *key = get_sendseg_buf_r(info.mgi_buf);
    std::memset(key, 1, 8);
    info.mgidata = key;
    info.mgidata_len = 8;
    mgi_final_rqt_message(&info);
    ASSERT_EQ(make_mgi_exchange_direct_with_context(&info, 11, on_answer, nullptr), 0);
}

TEST(Allocation, PlainFamilyRequestAllocatesNothingAfterThePairExists) {
    if (!AllocHook::active) GTEST_SKIP() << "the sanitizer owns malloc in this build";
    TestPeer mgd(MGD_APPID), app(11);
    const Bytes answer = mgi_message(MGI_RSP_FINAL, {{137, Bytes(32, 3)}});
    mgd.handle(MGI_IPC_MSG, [](const Received &) {
        return std::vector<Answer>{{mgi_record_message(MGI_RSP_FINAL, Bytes(32, 1)), 0, false}};
    });
    app.handle(MGI_IPC_MSG, [&](const Received &) { return std::vector<Answer>{{answer, 0, true}}; });
    long during = -1, first = -1;
    run_as(5, [&] {
        long before = AllocHook::thread_count;
        one_request_each_road(); // makes the pair and the reply socket
        first = AllocHook::thread_count - before;
        before = AllocHook::thread_count;
        for (int i = 0; i < 50; ++i) one_request_each_road();
        during = AllocHook::thread_count - before;
    });
    EXPECT_GT(first, 0); // the counter does see the first use
    EXPECT_EQ(during, 0);
}

} // namespace
