// mgload: puts load on mgd and the application daemon that owns aaa_role, from several processes
// of several threads, checks every answer against its request and measures each road.
// Pieces shared by the driver (main.cpp) and the requests (roads.cpp).
#ifndef MGMT_TOOLS_MGLOAD_H
#define MGMT_TOOLS_MGLOAD_H

#include <chrono>
#include <cstdint>

namespace mgload {

using Clock = std::chrono::steady_clock;

// The roads, in the order each thread takes them round after round: a set through mgd of the
// thread's own role, a set that the owner refuses (and that must change nothing), a get of the
// role straight from the owner, and a walk of the whole table over its pages.
enum Road { kSet, kRefused, kGet, kWalk, kRoads };
extern const char *const kRoadNames[kRoads];

// Latencies in nanoseconds, counted in a log-linear histogram: exact below 64 ns, then 32 steps
// for each power of two, so that a percentile read from it is within about 3 % of the true one.
struct Histogram {
    static constexpr int kLinear = 64;
    static constexpr int kSteps = 32;
    static constexpr int kBuckets = kLinear + 58 * kSteps; // up to 2^64 ns
    uint64_t counts[kBuckets];
    uint64_t max_ns;

    void add(uint64_t ns);
    void merge(const Histogram &other);
    uint64_t total() const;
    // The latency below which the share q (0 to 1) of the samples lies: the middle of its bucket,
    // never more than the greatest sample.
    uint64_t percentile(double q) const;
};

struct RoadStats {
    uint64_t requests;
    uint64_t errors;
    Histogram latency;
};

// What one process (or one thread) did: it goes to the parent through a pipe as it stands, so
// it holds no pointers.
struct Report {
    RoadStats roads[kRoads];
    uint64_t first_failure_ns; // when the first failure happened (steady clock), 0 for none
    char first_failure[512];   // which request it was and what was wrong with its answer

    void merge(const Report &other);
};

// One thread's share of the run.
struct Plan {
    unsigned process, thread;
    uint64_t requests;     // at most this many requests
    Clock::time_point end; // and none started after this
    uint32_t rows;         // the seeded rows the table must hold: role1 to roleN
    uint8_t timeout;       // seconds for each answer
};

// Runs one thread's requests (on the calling thread) and counts them into out, which starts zeroed.
void run_thread(const Plan &plan, Report &out);

// Installs the console sink that keeps each thread's library texts for its failure reports.
void keep_console_texts();

} // namespace mgload

#endif
