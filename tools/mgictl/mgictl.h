// mgictl: calls any object of the management tree through the generated
// catalogue and its stubs, and watches the messages that cross the runtime
// directory. Pieces shared by the verbs.
#ifndef MGMT_TOOLS_MGICTL_H
#define MGMT_TOOLS_MGICTL_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "mgmt/catalogue.h"
#include "mgmt/mgi.h"
#include "tools/cli.h"

namespace mgictl {

// Exit statuses: a script tells what went wrong from them.
enum Exit {
    kOk = 0,
    kFailed = 1,      // refused here: unknown object, bad value, nothing was sent
    kUsage = 2,       // bad command line
    kRefused = 3,     // the far side answered with an error
    kUnreachable = 4, // no answer: nobody serves the address, or the time ran out
};

// Everything the command line sets.
struct Options {
    uint32_t app = 5; // the command-line front end
    std::string user;
    bool user_set = false;
    uint32_t priv = 0;
    int vsys = -1;    // -1: the process default
    int timeout = -1; // seconds, -1: the request's default
    int type = -1;    // message type, -1: the verb's default
    bool json = false;
    bool verbose = false;
    std::string match, where, write_file;
    bool app_set = false;
};

// ---------------------------------------------------------------- values (values.cpp)

// One argument slot of a request: a key field of a parent (root first) or a field of the object.
struct Slot {
    const libmgmt_object *of;    // the object whose field this is
    const libmgmt_field *field;
    uint32_t number;             // field number within its object, from 0
    std::string label;           // "f3", or "parent.f1" for a parent's key
};
std::vector<Slot> slots_of(const libmgmt_object *obj);

// "u32", "s32", "b6": the field's kind and width, without any offset.
std::string kind_text(const libmgmt_field &f);

// Values given on the command line, parsed by kind, held for the stub's slots.
class Arguments {
  public:
    // Parses "NAME=VALUE" words; false with err naming the field and the fault.
    bool parse(const libmgmt_object *obj, const std::vector<std::string> &words, std::string &err);
    void fill(void **slots) const; // rqt_item
    bool gives_non_key() const { return non_key_; }

  private:
    std::deque<std::vector<uint8_t>> store_;
    std::deque<const void *> pointers_; // what a text or ref slot points at
    std::vector<std::pair<size_t, const void *>> given_;
    bool non_key_ = false;
};

// Parses one value of a field's kind into its wire bytes (width of the field for numbers and
// bytes, the text with its terminator for texts). false with err saying why.
bool parse_value(const libmgmt_field &f, const std::string &text, std::vector<uint8_t> &out, std::string &err);
// A field of a record for people (text, number or hex) or as a JSON value.
std::string format_value(const libmgmt_field &f, const uint8_t *record, bool json);
using mgmt_cli::json_string; // tools/cli.h
std::string hex(const uint8_t *p, size_t n);

// Prints records of an object: a table, or JSON records into out_json.
void print_records(const libmgmt_object *obj, const std::vector<std::vector<uint8_t>> &answers, bool json,
                   const char *verb);

// ---------------------------------------------------------------- verbs (request.cpp, monitor.cpp)

int verb_list(const std::vector<std::string> &args, const Options &o);
int verb_show(const std::vector<std::string> &args, const Options &o);
int verb_request(const std::string &verb, const std::vector<std::string> &args, const Options &o);
int verb_monitor(const std::vector<std::string> &args, const Options &o);
// The monitor's line for one copy of n bytes (its head and frame at least, as ipc_monitor_recv
// gives them), with -v the segments and records below it.
std::string copy_text(const uint8_t *copy, uint32_t n, bool verbose);

// Application id and the platform's name for it: "11 (app11)".
std::string app_text(uint32_t app);
// "e0002.e0001"
std::string path_text(const uint32_t *words, uint32_t depth);

} // namespace mgictl

#endif
