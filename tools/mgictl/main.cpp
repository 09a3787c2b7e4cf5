// mgictl: call and watch any object of the management tree from a shell.
//
//   mgictl [OPTION]... VERB [ARGUMENT]...
//
// The help texts below are the manual: --help prints them, --help-all prints
// all of them for help2man, and the bash completion is generated from the
// verbs and the catalogue.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>
#include <vector>

#include "mgictl.h"
#include "mgmt/platform/platform.h"

#ifndef MGICTL_VERSION
#define MGICTL_VERSION "unknown"
#endif

namespace mgictl {
namespace {

struct Verb {
    const char *name;
    const char *brief; // a line of the usage
    const char *synopsis;
    const char *text;
};

const Verb kVerbs[] = {
    {"list", "the objects of the catalogue, one a line", "list [GLOB]",
     "One object of the catalogue a line, in catalogue order: name, operations (set,get or exec), the owning\n"
     "application (id and name) and the path words in hex. GLOB (fnmatch, e.g. 'aaa_role*') picks names.\n"},
    {"show", "an object: path, owner, parents, fields, slots", "show OBJECT...",
     "An object's path words, owner, operations and parent chain; every field by its position (f1, f2, ...)\n"
     "with kind, width, offset ('@' when the catalogue places it) and key mark; then the argument slots a\n"
     "request takes, parents' keys first, as the stub takes them. OBJECT may be a GLOB.\n"},
    {"get", "read an object from its owner, every page",
     "get OBJECT [NAME=VALUE]... [--match [fN=]REGEX] [--where CONDITION] [--json]",
     "Reads an object straight from its owning application and follows the paging to the last answer; the\n"
     "records are decoded by the catalogue's layout: texts as text, numbers as numbers, byte fields as hex.\n"
     "NAME is fN for the object's own field N or PARENT.fN for a key of a parent (see mgictl show). A get\n"
     "packs the key fields; giving any other field sends the whole record.\n"
     "  --match [fN=]REGEX  a type-31 get: the owner keeps the records whose field N (default f1) matches\n"
     "  --where CONDITION   a condition the owner applies to the records, e.g. 'privilege gt 10'\n"
     "  --json              one JSON document: {\"object\", \"verb\", \"owner\", \"records\": [{\"f1\": ...}]}\n"
     "  --type N            message type of the request (default 2; 30 asks mgd for its own copy)\n"},
    {"set", "set an object through mgd", "set OBJECT NAME=VALUE...",
     "Sets an object: the record goes to mgd (application 2), which passes it to the owning application.\n"
     "Values are parsed by their field's kind before anything is sent: numbers in range (decimal, or hex\n"
     "after 0x), texts that fit their sN with the terminator, bytes as hex pairs (':' or '-' may separate\n"
     "them; a b16 also takes an IPv6 address, a 4-byte field an IPv4 address).\n"
     "  --type N            message type of the request (default 1)\n"},
    {"exec", "run an action object at its owner", "exec OBJECT [NAME=VALUE]...",
     "Runs an action object at its owning application, values as for set; prints what it answers.\n"
     "  --type N            message type of the request (default 0)\n"},
    {"monitor", "watch every message of the runtime directory", "monitor [-w FILE.pcapng] [--app N] [-v]",
     "While it runs, every process of the runtime directory sends it a copy of each message: one line\n"
     "each, with the time, sender -> receiver (application names), the message number and what it is; for\n"
     "MGI the type, sequence, target words with the object's name, the segment chain (type(length)) and\n"
     "an error's code, private code and text. Copies never hold a sender up: when the queue is full they\n"
     "are dropped, and counted. Ctrl-C (or SIGTERM) ends it.\n"
     "  -w, --write FILE    also write the copies to FILE in pcapng, for\n"
     "                      tshark -X lua_script:tools/wireshark/mgi.lua -r FILE -V\n"
     "  --app N             only messages from or to application N\n"
     "  -v, --verbose       every segment too, and records decoded by the object's layout\n"},
    {"completion", "print the bash completion", "completion",
     "Prints the bash completion of mgictl: verbs, options and the object names of the catalogue.\n"},
    {"help", "this text, or a verb's", "help [VERB]", "This text, or a verb's.\n"},
};

const char kOptions[] =
    "Identity of a request (every verb that sends):\n"
    "  --app N         speak as application N (default 5, the command-line front end)\n"
    "  --user NAME     user name the request carries\n"
    "  --priv N        user privilege the request carries\n"
    "  --vsys N        virtual system of the request (0 to 65535)\n"
    "  --timeout S     seconds to wait for each answer (1 to 255, default 96)\n"
    "Other options:\n"
    "  -v, --verbose   say more (monitor)\n"
    "  -h, --help      the help of mgictl, or of the verb given\n"
    "  -V, --version   the version\n";

const char kTail[] =
    "Exit status:\n"
    "  0  done\n"
    "  1  refused here (unknown object, a bad value): nothing was sent\n"
    "  2  bad command line\n"
    "  3  the far side answered with an error (its MGI code, private code and text are printed)\n"
    "  4  could not reach the far side: nobody serves its address, or no answer came in time\n"
    "Environment:\n"
    "  MGMT_IPC_DIR    the runtime directory of the daemons (else /run/mgmt, else /tmp/mgmt-UID)\n";

const Verb *find_verb(const std::string &name) {
    for (const Verb &v : kVerbs)
        if (name == v.name) return &v;
    return nullptr;
}

void usage(FILE *to) {
    std::fprintf(to, "Usage: mgictl [OPTION]... VERB [ARGUMENT]...\n"
                     "Call and watch any object of the management tree.\n\nVerbs:\n");
    for (const Verb &v : kVerbs) {
        std::string head = v.synopsis;
        head = head.substr(0, head.find(" [--")); // the options of a verb are in its own help
        std::fprintf(to, "  %-30s %s\n", head.c_str(), v.brief);
    }
    std::fprintf(to, "\n%s\n%s\n'mgictl VERB --help' tells more of a verb.\n", kOptions, kTail);
}

void verb_help(const Verb &v) { std::printf("Usage: mgictl [OPTION]... %s\n%s", v.synopsis, v.text); }

// Everything, for help2man: the usage, then each verb under a heading of its own.
void help_all() {
    usage(stdout);
    std::printf("\nVerbs in detail:\n");
    for (const Verb &v : kVerbs) std::printf("\n  mgictl %s\n%s", v.synopsis, v.text);
}

void completion() {
    std::string sg, ex, verbs;
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        (o->ops & LIBMGMT_OP_EXEC ? ex : sg) += std::string(" ") + o->name;
    }
    for (const Verb &v : kVerbs) verbs += std::string(verbs.empty() ? "" : " ") + v.name;
    std::printf(
        "# bash completion of mgictl, generated from the catalogue of libmgmt\n"
        "_mgictl_sg='%s'\n_mgictl_exec='%s'\n"
        "_mgictl() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} verb= i\n"
        "    local valued='--app --user --priv --vsys --timeout --type --match --where -w --write'\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        case \" $valued \" in *\" ${COMP_WORDS[i]} \"*) ((i++)); continue;; esac\n"
        "        [[ ${COMP_WORDS[i]} == -* ]] || { verb=${COMP_WORDS[i]}; break; }\n"
        "    done\n"
        "    case \" $valued \" in *\" $prev \"*)\n"
        "        [[ $prev == -w || $prev == --write ]] && COMPREPLY=($(compgen -f -- \"$cur\"))\n"
        "        return;;\n"
        "    esac\n"
        "    if [[ $cur == -* ]]; then\n"
        "        COMPREPLY=($(compgen -W \"$valued --json --verbose --help --version\" -- \"$cur\"))\n"
        "        return\n"
        "    fi\n"
        "    case $verb in\n"
        "    '') COMPREPLY=($(compgen -W '%s' -- \"$cur\"));;\n"
        "    help) COMPREPLY=($(compgen -W '%s' -- \"$cur\"));;\n"
        "    get|set) [[ $prev == \"$verb\" ]] && COMPREPLY=($(compgen -W \"$_mgictl_sg\" -- \"$cur\"));;\n"
        "    exec) [[ $prev == exec ]] && COMPREPLY=($(compgen -W \"$_mgictl_exec\" -- \"$cur\"));;\n"
        "    show|list) COMPREPLY=($(compgen -W \"$_mgictl_sg $_mgictl_exec\" -- \"$cur\"));;\n"
        "    esac\n"
        "}\n"
        "complete -F _mgictl mgictl\n",
        sg.c_str() + 1, ex.c_str() + 1, verbs.c_str(), verbs.c_str());
}

bool number_option(const char *name, const char *text, unsigned long lo, unsigned long hi, unsigned long &out) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(text, &end, 10);
    if (!*text || *end || errno || text[0] == '-' || v < lo || v > hi) {
        std::fprintf(stderr, "mgictl: %s '%s': a number from %lu to %lu is wanted\n", name, text, lo, hi);
        return false;
    }
    out = v;
    return true;
}

} // namespace
} // namespace mgictl

using namespace mgictl;

int main(int argc, char **argv) {
    enum { kApp = 256, kUser, kPriv, kVsys, kTimeout, kType, kMatch, kWhere, kJson, kHelpAll };
    static const option longs[] = {
        {"app", required_argument, nullptr, kApp},         {"user", required_argument, nullptr, kUser},
        {"priv", required_argument, nullptr, kPriv},       {"vsys", required_argument, nullptr, kVsys},
        {"timeout", required_argument, nullptr, kTimeout}, {"type", required_argument, nullptr, kType},
        {"match", required_argument, nullptr, kMatch},     {"where", required_argument, nullptr, kWhere},
        {"json", no_argument, nullptr, kJson},             {"write", required_argument, nullptr, 'w'},
        {"verbose", no_argument, nullptr, 'v'},            {"help", no_argument, nullptr, 'h'},
        {"help-all", no_argument, nullptr, kHelpAll},      {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    Options o;
    bool help = false;
    int c;
    unsigned long n;
    while ((c = getopt_long(argc, argv, "w:vhV", longs, nullptr)) != -1) {
        switch (c) {
        case kApp:
            if (!number_option("--app", optarg, 1, 0xffff, n)) return kUsage;
            o.app = uint32_t(n);
            o.app_set = true;
            break;
        case kUser:
            if (std::strlen(optarg) >= 32) {
                std::fprintf(stderr, "mgictl: --user '%s': a user name has at most 31 bytes\n", optarg);
                return kUsage;
            }
            o.user = optarg;
            o.user_set = true;
            break;
        case kPriv:
            if (!number_option("--priv", optarg, 0, 0xffffffffUL, n)) return kUsage;
            o.priv = uint32_t(n);
            break;
        case kVsys:
            if (!number_option("--vsys", optarg, 0, 0xffff, n)) return kUsage;
            o.vsys = int(n);
            break;
        case kTimeout:
            if (!number_option("--timeout", optarg, 1, 255, n)) return kUsage;
            o.timeout = int(n);
            break;
        case kType:
            if (!number_option("--type", optarg, 0, 255, n)) return kUsage;
            o.type = int(n);
            break;
        case kMatch:
            if (!*optarg) {
                std::fprintf(stderr, "mgictl: --match: an empty expression\n");
                return kUsage;
            }
            o.match = optarg;
            break;
        case kWhere:
            if (!*optarg || std::strlen(optarg) > 4096) {
                std::fprintf(stderr, "mgictl: --where: a condition of 1 to 4096 bytes is wanted\n");
                return kUsage;
            }
            o.where = optarg;
            break;
        case kJson: o.json = true; break;
        case 'w': o.write_file = optarg; break;
        case 'v': o.verbose = true; break;
        case 'h': help = true; break;
        case kHelpAll: help_all(); return kOk;
        case 'V':
            std::printf("mgictl (libmgmt) %s\n", MGICTL_VERSION);
            return kOk;
        default:
            std::fprintf(stderr, "Try 'mgictl --help'.\n");
            return kUsage;
        }
    }
    std::vector<std::string> args(argv + optind, argv + argc);
    if (args.empty()) {
        if (help) {
            usage(stdout);
            return kOk;
        }
        usage(stderr);
        return kUsage;
    }
    const std::string verb = args[0];
    args.erase(args.begin());
    const Verb *v = find_verb(verb);
    if (!v) {
        std::fprintf(stderr, "mgictl: unknown verb '%s'. Try 'mgictl --help'.\n", verb.c_str());
        return kUsage;
    }
    if (help || verb == "help") {
        const Verb *about = verb == "help" && !args.empty() ? find_verb(args[0]) : v;
        if (!about) {
            std::fprintf(stderr, "mgictl help: unknown verb '%s'\n", args[0].c_str());
            return kUsage;
        }
        if (verb == "help" && args.empty())
            usage(stdout);
        else
            verb_help(*about);
        return kOk;
    }
    // Options that only some verbs take.
    const bool get = verb == "get", sends = get || verb == "set" || verb == "exec";
    const char *misplaced = !get && (!o.match.empty() || !o.where.empty()) ? "--match and --where belong to get"
                            : !get && o.json                               ? "--json belongs to get"
                            : !sends && o.type >= 0                        ? "--type belongs to get, set and exec"
                            : !o.write_file.empty() && verb != "monitor"   ? "-w belongs to monitor"
                                                                           : nullptr;
    if (misplaced) {
        std::fprintf(stderr, "mgictl %s: %s\n", verb.c_str(), misplaced);
        return kUsage;
    }
    if (verb == "completion") {
        completion();
        return kOk;
    }
    if (verb == "list") return verb_list(args, o);
    if (verb == "show") return verb_show(args, o);
    if (verb == "monitor") return verb_monitor(args, o);
    // The identity every request carries.
    ipc_init(o.app, 0);
    if (o.user_set || o.priv) set_mgi_user(o.user.c_str(), o.priv);
    if (o.vsys >= 0) set_mgi_vsysid(uint16_t(o.vsys));
    return verb_request(verb, args, o);
}
