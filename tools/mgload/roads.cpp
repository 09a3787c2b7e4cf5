// The requests of one load thread and the checks of their answers: each thread owns one role,
// "load-P-T", sets it through mgd with a new value each round, has a set with a privilege out of
// range refused, reads its role back straight from the owner and walks the whole table.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "libmgmt.h"
#include "mgmt/platform/platform.h"
#include "mgmt/records_gen.h"
#include "mgload.h"

namespace mgload {

const char *const kRoadNames[kRoads] = {"set", "refused set", "get", "walk"};

// ---------------------------------------------------------------- histogram

namespace {

int bucket_of(uint64_t ns) {
    if (ns < uint64_t(Histogram::kLinear)) return int(ns);
    const int shift = std::bit_width(ns) - 6; // keeps the leading six bits: 32 to 63
    return Histogram::kLinear + (shift - 1) * Histogram::kSteps + int(ns >> shift) - Histogram::kSteps;
}

uint64_t bucket_middle(int b) {
    if (b < Histogram::kLinear) return uint64_t(b);
    const int shift = (b - Histogram::kLinear) / Histogram::kSteps + 1;
    const uint64_t low = uint64_t((b - Histogram::kLinear) % Histogram::kSteps + Histogram::kSteps) << shift;
    return low + (uint64_t(1) << (shift - 1));
}

} // namespace

void Histogram::add(uint64_t ns) {
    ++counts[bucket_of(ns)];
    if (ns > max_ns) max_ns = ns;
}

void Histogram::merge(const Histogram &other) {
    for (int b = 0; b < kBuckets; ++b)
        counts[b] += other.counts[b];
    if (other.max_ns > max_ns) max_ns = other.max_ns;
}

uint64_t Histogram::total() const {
    uint64_t n = 0;
    for (uint64_t c : counts)
        n += c;
    return n;
}

uint64_t Histogram::percentile(double q) const {
    const uint64_t n = total();
    if (n == 0) return 0;
    const uint64_t rank = std::max<uint64_t>(1, uint64_t(std::ceil(q * double(n))));
    uint64_t seen = 0;
    for (int b = 0; b < kBuckets; ++b) {
        seen += counts[b];
        if (seen >= rank) return std::min(bucket_middle(b), max_ns);
    }
    return max_ns;
}

void Report::merge(const Report &other) {
    for (int r = 0; r < kRoads; ++r) {
        roads[r].requests += other.roads[r].requests;
        roads[r].errors += other.roads[r].errors;
        roads[r].latency.merge(other.roads[r].latency);
    }
    if (other.first_failure_ns && (!first_failure_ns || other.first_failure_ns < first_failure_ns)) {
        first_failure_ns = other.first_failure_ns;
        std::memcpy(first_failure, other.first_failure, sizeof first_failure);
    }
}

// ---------------------------------------------------------------- one thread

namespace {

using Role = aaa_role_entity;
constexpr uint32_t kMaxPrivilege = 15; // what the owner takes; above it a set is refused
constexpr uint32_t kRefusedPrivilege = 99;
constexpr int kRefusedCode = -14; // the owner's code and private code of that refusal
constexpr int kRefusedPrivateCode = 1401;
constexpr uint32_t kLoadIdBase = 1000000; // ids of the load's roles, apart from the seeded ones
constexpr uint8_t kNoAnswer = 0xff;       // a message type no answer has: nothing came back

// The library's console texts of the request in hand (its own reasons for a failure).
thread_local std::string *t_console = nullptr;

void console_text(const char *text, void *) {
    if (t_console && t_console->size() < 400) *t_console += text;
}

std::string field(const char *p, size_t n) { return std::string(p, strnlen(p, n)); }

std::string role_text(const Role &r) {
    return "{" + field(r.f1, sizeof r.f1) + ", " + std::to_string(r.f2) + ", " + std::to_string(r.f3) + ", \"" +
           field(r.f4, sizeof r.f4) + "\"}";
}

bool same_role(const Role &a, const Role &b) {
    return field(a.f1, sizeof a.f1) == field(b.f1, sizeof b.f1) && a.f2 == b.f2 && a.f3 == b.f3 &&
           field(a.f4, sizeof a.f4) == field(b.f4, sizeof b.f4);
}

// A seeded row's number: "role12" is 12; 0 for any other name.
uint32_t seeded_number(const char *name) {
    if (std::strncmp(name, "role", 4) != 0 || name[4] < '1' || name[4] > '9') return 0;
    uint32_t n = 0;
    for (const char *p = name + 4; *p; ++p) {
        if (*p < '0' || *p > '9' || n > 100000000) return 0;
        n = n * 10 + uint32_t(*p - '0');
    }
    return n;
}

// The row k as the application daemon seeds its table.
Role seeded_row(uint32_t k) {
    Role r{};
    std::snprintf(r.f1, sizeof r.f1, "role%u", k);
    r.f2 = k;
    r.f3 = ((k - 1) * 7) % 16;
    std::snprintf(r.f4, sizeof r.f4, "role number %u", k);
    return r;
}

class Worker;
thread_local Worker *t_worker = nullptr;

class Worker {
  public:
    Worker(const Plan &plan, Report &out) : plan_(plan), out_(out) {
        name_ = "load-" + std::to_string(plan.process) + "-" + std::to_string(plan.thread);
        t_worker = this;
        t_console = &console_;
    }
    ~Worker() {
        t_worker = nullptr;
        t_console = nullptr;
        thread_free_mgi();
    }

    void run() {
        for (uint64_t n = 0; n < plan_.requests && Clock::now() < plan_.end; ++n) {
            const Road road = Road(n % kRoads);
            round_ = n / kRoads + 1;
            std::string wrong;
            Clock::time_point start = Clock::now();
            switch (road) {
            case kSet:
                wrong = set();
                break;
            case kRefused:
                wrong = refused();
                break;
            case kGet:
                wrong = get();
                break;
            default:
                wrong = walk();
                break;
            }
            const Clock::time_point end = Clock::now();
            RoadStats &s = out_.roads[road];
            ++s.requests;
            s.latency.add(uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count()));
            if (wrong.empty()) continue;
            ++s.errors;
            if (!out_.first_failure_ns) {
                out_.first_failure_ns = uint64_t(end.time_since_epoch().count());
                std::snprintf(out_.first_failure, sizeof out_.first_failure, "%s #%" PRIu64 " of %s: %s",
                              kRoadNames[road], round_, name_.c_str(), wrong.c_str());
            }
        }
    }

    // The direct road's callback: each answer of a get, records of the role.
    static int on_answer(void *data, uint32_t *len, void *err, uint32_t *, void *, uint32_t *, void *) {
        Worker *w = t_worker;
        if (err) w->error_segment_ = true;
        if (!data || !len || !*len) return 0;
        if (*len % sizeof(Role) != 0) {
            w->bad_length_ = *len;
            return 0;
        }
        const auto *p = static_cast<const Role *>(data);
        w->rows_.insert(w->rows_.end(), p, p + *len / sizeof(Role));
        ++w->pages_;
        return 0;
    }

  private:
    // A fresh request on the thread's pair.
    void start(uint8_t type) {
        console_.clear();
        rows_.clear();
        pages_ = 0;
        bad_length_ = 0;
        error_segment_ = false;
        init_mgi_info(&info_);
        info_.rqt_timeout = plan_.timeout;
        mgi_set_rqt_type(&info_, type);
        info_.mgi_buf->rbuf[MGI_OFF_TYPE] = kNoAnswer;
    }

    uint8_t answer_type() const { return info_.mgi_buf->rbuf[MGI_OFF_TYPE]; }
    bool silent() const {
        return answer_type() == kNoAnswer || (answer_type() == 0 && info_.mgi_buf->rbuf[MGI_OFF_MARK] == 0);
    }

    // What an answer that should not have been an error or silence said.
    std::string fault(int rc, const char *peer) const {
        mgiBuf *buf = info_.mgi_buf;
        std::string console = console_;
        while (!console.empty() && (console.back() == '\n' || console.back() == ' '))
            console.pop_back();
        for (char &c : console)
            if (c == '\n') c = ';';
        if (answer_type() == MGI_RSP_ERROR || error_segment_) {
            const char *text = get_errString_r(buf);
            char out[400];
            std::snprintf(out, sizeof out, "refused by %s: MGI code %d, private code %d: %s", peer,
                          mgi_get_rsp_err_code_r(buf), mgi_get_rsp_private_err_code_r(buf),
                          text && *text ? text : "(no text)");
            return out;
        }
        if (silent()) return std::string("no answer from ") + peer + (console.empty() ? "" : ": " + console);
        return "the exchange ended with " + std::to_string(rc) + " after an answer of type " +
               std::to_string(answer_type()) + (console.empty() ? "" : ": " + console);
    }

    // Sets the thread's role through mgd with the given privilege.
    int send_set(const Role &r) {
        start(MGI_RQT_SET);
        const char *name = r.f1, *descr = r.f4;
        uint32_t id = r.f2, priv = r.f3;
        info_.rqt_item[0] = &name;
        info_.rqt_item[1] = &id;
        info_.rqt_item[2] = &priv;
        info_.rqt_item[3] = &descr;
        return final_set_aaa_role(&info_, nullptr);
    }

    // A new value each round, which the next get and walk must find. The id stays: with the name
    // it is the index of the role, of which mgd keeps the last set (one row a thread, not a round).
    Role next_value() const {
        Role r{};
        std::snprintf(r.f1, sizeof r.f1, "%s", name_.c_str());
        r.f2 = kLoadIdBase + plan_.process * 1000 + plan_.thread;
        r.f3 = uint32_t(round_ % (kMaxPrivilege + 1));
        std::snprintf(r.f4, sizeof r.f4, "round %" PRIu64 " of %u.%u", round_, plan_.process, plan_.thread);
        return r;
    }

    std::string set() {
        Role r = next_value();
        int rc = send_set(r);
        if (rc != 0 || (answer_type() != MGI_RSP_FINAL && answer_type() != MGI_RSP_FINAL2)) return fault(rc, "mgd");
        held_ = r;
        have_held_ = true;
        return {};
    }

    std::string refused() {
        Role r = next_value();
        r.f3 = kRefusedPrivilege;
        int rc = send_set(r);
        mgiBuf *buf = info_.mgi_buf;
        if (answer_type() != MGI_RSP_ERROR)
            return "taken, though its privilege is " + std::to_string(r.f3) + " (" + fault(rc, "mgd") + ")";
        const char *text = get_errString_r(buf);
        char want[200];
        std::snprintf(want, sizeof want, "privilege %u of role %s is outside 0 to %u", r.f3, r.f1, kMaxPrivilege);
        if (mgi_get_rsp_err_code_r(buf) != kRefusedCode || mgi_get_rsp_private_err_code_r(buf) != kRefusedPrivateCode ||
            !text || std::strcmp(text, want) != 0)
            return fault(rc, "mgd") + " (expected MGI code " + std::to_string(kRefusedCode) + ", private code " +
                   std::to_string(kRefusedPrivateCode) + ": " + want + ")";
        return {};
    }

    std::string get() {
        start(MGI_RQT_GET);
        const char *name = name_.c_str();
        info_.rqt_item[0] = &name;
        int rc = final_get_aaa_role(&info_, on_answer, nullptr);
        if (rc != 0 || error_segment_ || answer_type() == MGI_RSP_ERROR) return fault(rc, "the owner");
        if (bad_length_) return "an answer of " + std::to_string(bad_length_) + " bytes, no whole number of roles";
        if (rows_.size() != 1) return std::to_string(rows_.size()) + " roles came back for one key";
        if (have_held_ && !same_role(rows_[0], held_))
            return "read " + role_text(rows_[0]) + ", the last set was " + role_text(held_);
        return {};
    }

    // The whole table in name order: every seeded row once and as seeded, every name once, and
    // the thread's own role as last set.
    std::string walk() {
        start(MGI_RQT_GET);
        int rc = final_get_aaa_role(&info_, on_answer, nullptr);
        if (rc != 0 || error_segment_ || answer_type() == MGI_RSP_ERROR) return fault(rc, "the owner");
        if (bad_length_) return "an answer of " + std::to_string(bad_length_) + " bytes, no whole number of roles";
        uint32_t next_seeded = 1;
        bool own = false;
        for (size_t i = 0; i < rows_.size(); ++i) {
            const Role &r = rows_[i];
            if (i && compare_by_type(APP_ITEM_STRING, sizeof r.f1, rows_[i - 1].f1, r.f1) >= 0)
                return "row " + std::to_string(i) + " (" + field(r.f1, sizeof r.f1) + ") came after " +
                       field(rows_[i - 1].f1, sizeof r.f1) + ", out of order or twice";
            if (uint32_t k = seeded_number(r.f1)) {
                if (k != next_seeded)
                    return "seeded row role" + std::to_string(k) + " came where role" + std::to_string(next_seeded) +
                           " should";
                if (!same_role(r, seeded_row(k)))
                    return "seeded row " + role_text(r) + " differs from " + role_text(seeded_row(k));
                ++next_seeded;
            }
            if (field(r.f1, sizeof r.f1) == name_) {
                own = true;
                if (have_held_ && !same_role(r, held_))
                    return "own row " + role_text(r) + " in the walk, the last set was " + role_text(held_);
            }
        }
        if (next_seeded != plan_.rows + 1)
            return std::to_string(next_seeded - 1) + " seeded rows came, not " + std::to_string(plan_.rows) + " (" +
                   std::to_string(rows_.size()) + " rows in " + std::to_string(pages_) + " answers)";
        if (have_held_ && !own) return "the walk lacks the thread's own role " + name_;
        return {};
    }

    const Plan &plan_;
    Report &out_;
    std::string name_;
    uint64_t round_ = 0;
    Role held_{}; // what the table holds for the thread's role since its last set
    bool have_held_ = false;
    mgiInfo info_;
    std::string console_;
    std::vector<Role> rows_; // what the answers of the request in hand held
    size_t pages_ = 0;
    uint32_t bad_length_ = 0;
    bool error_segment_ = false;
};

} // namespace

void keep_console_texts() { console_set_sink(console_text, nullptr); }

void run_thread(const Plan &plan, Report &out) {
    Worker w(plan, out);
    w.run();
}

} // namespace mgload
