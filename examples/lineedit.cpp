// lineedit: edit one line on the terminal with libmgmt's line editor.
//
// Keys: printable characters insert (or overwrite, toggled by Ctrl-O or
// Insert); Left/Right or Ctrl-B/Ctrl-F move a character; Alt-B/Alt-F or
// Ctrl-Left/Ctrl-Right move a word; Home/End or Ctrl-A/Ctrl-E go to the ends;
// Backspace and Delete (or Ctrl-D) delete a character; Ctrl-W and
// Alt-Backspace kill the word behind, Alt-D the word ahead; Ctrl-K kills to
// the end, Ctrl-U the whole line; Ctrl-T transposes; Ctrl-L redraws. Enter
// ends the input and prints the line; Ctrl-C, or Ctrl-D on an empty line,
// gives up.

#include <getopt.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libmgmt.h"
#include "tools/cli.h"

namespace {

termios saved_mode;
bool raw_mode = false;

void leave_raw_mode() {
    if (raw_mode) {
        tcsetattr(0, TCSANOW, &saved_mode);
        raw_mode = false;
    }
}

// Keys arrive one byte at a time, unechoed, with control keys as bytes.
// Output processing stays on, so "\n" still starts a fresh line.
void enter_raw_mode() {
    if (!isatty(0) || tcgetattr(0, &saved_mode) != 0) {
        return;
    }
    termios raw = saved_mode;
    raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INLCR | ISTRIP | IXON);
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | IEXTEN | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(0, TCSANOW, &raw) == 0) {
        raw_mode = true;
        atexit(leave_raw_mode);
    }
}

constexpr int ctrl(char c) { return c & 0x1f; }

enum { ESC_NONE = 0, ESC_SEEN = 1, ESC_CSI = 2 };

struct editor {
    term_line line{};
    bool overwrite = false;
    std::string csi_params;  // parameters of the control sequence being read

    void redraw() {
        const int32_t at = line.cursor;
        term_out("\n> ");
        term_redraw_line(&line);
        while (line.cursor > at) {
            term_backward_char(&line);
        }
    }

    void printable(uint8_t c) {
        if (overwrite) {
            term_insert_overtwrite(&line, c);
        } else if (line.len < 1022) {
            term_insert(&line, c);
        }
    }

    // The final byte of "ESC [ params final".
    void csi_final(uint8_t c) {
        const bool word = csi_params.find(";5") != std::string::npos || csi_params.find(";3") != std::string::npos;
        switch (c) {
        case 'C':
            if (word) {
                term_forward_word(&line);
                line.esc_state = ESC_NONE;
            } else {
                term_esc_map(&line, c);
            }
            break;
        case 'D':
            if (word) {
                term_backward_word(&line);
                line.esc_state = ESC_NONE;
            } else {
                term_esc_map(&line, c);
            }
            break;
        case 'H':
            term_begin_of_line(&line);
            break;
        case 'F':
            term_end_of_line(&line);
            break;
        case '~':
            if (csi_params == "1" || csi_params == "7") {
                term_begin_of_line(&line);
            } else if (csi_params == "4" || csi_params == "8") {
                term_end_of_line(&line);
            } else if (csi_params == "3") {
                term_delete_char(&line);
            } else if (csi_params == "2") {
                overwrite = !overwrite;
            }
            break;
        default:
            term_esc_map(&line, c);  // up, down and the rest: nothing
            break;
        }
        line.esc_state = ESC_NONE;
        csi_params.clear();
    }

    // One key byte; false when the input is finished (done says how).
    bool key(uint8_t c, bool &accepted) {
        if (line.esc_state == ESC_SEEN) {
            if (c == '[' || c == 'O') {
                line.esc_state = ESC_CSI;
                csi_params.clear();
            } else {
                term_esc_pre_map(&line, c);
            }
            return true;
        }
        if (line.esc_state == ESC_CSI) {
            if (c >= 0x40 && c <= 0x7e) {
                csi_final(c);
            } else {
                csi_params.push_back(static_cast<char>(c));
            }
            return true;
        }
        switch (c) {
        case '\r':
        case '\n':
            accepted = true;
            return false;
        case 27:
            line.esc_state = ESC_SEEN;
            return true;
        case ctrl('C'):
            accepted = false;
            return false;
        case ctrl('D'):
            if (line.len == 0) {
                accepted = false;
                return false;
            }
            term_delete_char(&line);
            return true;
        case ctrl('A'):
            term_begin_of_line(&line);
            return true;
        case ctrl('E'):
            term_end_of_line(&line);
            return true;
        case ctrl('B'):
            term_backward_char(&line);
            return true;
        case ctrl('F'):
            term_forward_char(&line);
            return true;
        case ctrl('H'):
        case 127:
            term_backward_delete_char(&line);
            return true;
        case ctrl('K'):
            term_kill_line(&line);
            return true;
        case ctrl('U'):
            term_kill_whole_line(&line);
            return true;
        case ctrl('W'):
            term_backward_kill_word(&line);
            return true;
        case ctrl('T'):
            term_transpose_line(&line);
            return true;
        case ctrl('L'):
            redraw();
            return true;
        case ctrl('O'):
            overwrite = !overwrite;
            return true;
        default:
            if (c >= 32 && c < 127) {
                printable(c);
            }
            return true;
        }
    }
};

}  // namespace

int main(int argc, char **argv) {
    static const option options[] = {{"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "hV", options, nullptr)) != -1;) {
        switch (c) {
        case 'h':
            std::printf("Usage: lineedit\n"
                        "Edits one line on the terminal with libmgmt's line editor and prints it.\n"
                        "Keys: printable characters insert (Ctrl-O or Insert toggles overwrite); Left/Right,\n"
                        "Ctrl-B/Ctrl-F move; Alt-B/Alt-F, Ctrl-Left/Ctrl-Right move a word; Home/End, Ctrl-A/\n"
                        "Ctrl-E go to the ends; Backspace, Delete, Ctrl-D delete; Ctrl-W, Alt-Backspace, Alt-D,\n"
                        "Ctrl-K, Ctrl-U kill; Ctrl-T transposes; Ctrl-L redraws; Enter accepts; Ctrl-C, or\n"
                        "Ctrl-D on an empty line, gives up (exit status 1).\n"
                        "\n"
                        "  -h, --help      show this help and exit\n"
                        "  -V, --version   show the version and exit\n");
            return 0;
        case 'V': return mgmt_cli::version("lineedit");
        default: return mgmt_cli::usage_error("lineedit");
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "lineedit: '%s': no arguments are taken\n", argv[optind]);
        return mgmt_cli::usage_error("lineedit");
    }
    enter_raw_mode();
    editor ed;
    term_out("> ");
    bool accepted = false;
    for (;;) {
        unsigned char c = 0;
        const ssize_t n = read(0, &c, 1);
        if (n <= 0) {
            accepted = false;
            break;
        }
        if (!ed.key(c, accepted)) {
            break;
        }
    }
    term_out("\n");
    leave_raw_mode();
    if (!accepted) {
        term_out("no line\n");
        return 1;
    }
    term_out("line: \"%.*s\"\n", static_cast<int>(ed.line.len), ed.line.buf);
    return 0;
}
