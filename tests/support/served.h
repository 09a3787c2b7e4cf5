// An endpoint of the platform stand-in, served on a thread of its own while the object lives: the
// tests and the benchmarks answer as an application through it. Handlers may be added while it
// serves. Header only, so that the benchmarks use it without the test support.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <thread>
#include <utility>

#include "mgmt/platform/platform.h"

namespace mgmt_test {

class ServedEndpoint {
  public:
    ServedEndpoint(uint32_t app, uint32_t inst, void *ctx,
                   std::initializer_list<std::pair<uint16_t, ipc_handler_fn>> handlers = {}) {
        ep_ = ipc_endpoint_open(app, inst, ctx);
        if (!ep_) return;
        for (auto &[msg, fn] : handlers)
            ipc_endpoint_handler(ep_, msg, fn);
        thread_ = std::thread([this] { ipc_endpoint_serve(ep_); });
    }
    ~ServedEndpoint() {
        if (!ep_) return;
        ipc_endpoint_stop(ep_);
        thread_.join();
        ipc_endpoint_close(ep_);
    }
    ServedEndpoint(const ServedEndpoint &) = delete;
    ServedEndpoint &operator=(const ServedEndpoint &) = delete;
    bool ok() const { return ep_ != nullptr; }
    void handle(uint16_t msg, ipc_handler_fn fn) const { ipc_endpoint_handler(ep_, msg, fn); }

  private:
    ipc_endpoint_t *ep_ = nullptr;
    std::thread thread_;
};

} // namespace mgmt_test
