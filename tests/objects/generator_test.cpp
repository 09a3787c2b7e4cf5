// The generator's checks of the catalogue: a row it cannot lay out stops it,
// naming the row and the reason, and nothing is written.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct GenRun {
    int status = -1;
    std::string output;
    std::vector<std::string> files;
};

std::vector<std::string> list_dir(const std::string &dir) {
    std::vector<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(e->d_name);
        closedir(d);
    }
    return out;
}

// Runs the generator on a catalogue made of these rows (tab-separated columns).
GenRun generate(const std::vector<std::string> &rows, int chunks = 2) {
    char tmpl[] = "/tmp/mgmt-objgen-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    EXPECT_NE(dir, nullptr);
    const std::string base = dir ? dir : "/tmp";
    const std::string tsv = base + "/catalogue.tsv", out = base + "/out";
    {
        std::ofstream f(tsv);
        f << "# name\tops\tpath\tapp\tparent\tindex\tentity\n";
        for (const auto &r : rows)
            f << r << "\n";
    }
    EXPECT_EQ(system(("mkdir -p " + out).c_str()), 0);
    GenRun run;
    const std::string cmd =
        std::string(MGMT_OBJGEN) + " " + tsv + " " + out + " " + out + " " + std::to_string(chunks) + " 2>&1";
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p))
            run.output.append(buf, n);
        run.status = pclose(p);
    }
    run.files = list_dir(out);
    EXPECT_EQ(system(("rm -rf " + base).c_str()), 0);
    return run;
}

std::string row(const std::string &name, const std::string &index, const std::string &entity,
                const std::string &parent = "-", const std::string &path = "10001", const std::string &ops = "sg") {
    return name + "\t" + ops + "\t" + path + "\t1\t" + parent + "\t" + index + "\t" + entity;
}

TEST(Generator, GoodCatalogueGivesHeaderTableAndChunks) {
    GenRun r = generate({row("top", "s32", "s32 u32", "-", "10001"), row("top_child", "u8", "=", "top", "10001.10001"),
                         row("top_act", "-", "u64 b16", "-", "10002", "e")},
                        3);
    EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.output;
    std::sort(r.files.begin(), r.files.end());
    EXPECT_EQ(r.files, (std::vector<std::string>{"catalogue_data.cpp", "objects_0.cpp", "objects_1.cpp",
                                                 "objects_2.cpp", "objects_gen.h"}));
}

// The line of the output that holds the text, or an empty string.
std::string line_of(const std::string &out, const std::string &text) {
    size_t at = out.find(text);
    if (at == std::string::npos) return {};
    size_t from = out.rfind('\n', at);
    from = from == std::string::npos ? 0 : from + 1;
    return out.substr(from, out.find('\n', at) - from);
}

struct Bad {
    const char *what;
    std::vector<std::string> rows;
    const char *line_and_name; // "<line>: <name>"
    const char *reason;
};

TEST(Generator, RejectsRowsItCannotLayOut) {
    const std::string ok = row("ok", "u32", "=");
    const std::vector<Bad> cases = {
        {"misaligned offset",
         {ok, row("bad", "-", "u8 u32@5")},
         ":3: bad",
         "field 1 'u32@5': offset 5 breaks its alignment of 4"},
        {"offset that says nothing",
         {row("bad", "-", "u8 u32@4")},
         ":2: bad",
         "offset 4 is where the layout puts it anyway"},
        {"length cutting fields",
         {row("bad", "-", "u32*4 =8")},
         ":2: bad",
         "length 8 cuts the fields, which end at 16"},
        {"misaligned length", {row("bad", "-", "u32 =6")}, ":2: bad", "length 6 breaks the record's alignment of 4"},
        {"length of the rule", {row("bad", "-", "u32 u8 =8")}, ":2: bad", "length 8 is what the layout gives anyway"},
        {"length not last", {row("bad", "-", "u32 =8 u8")}, ":2: bad", "must close the entity record"},
        {"length in an index", {row("bad", "u32 =8", "u32 u8")}, ":2: bad", "a length in the index record"},
        {"index not a prefix", {row("bad", "u32", "u8 u32")}, ":2: bad", "the index must be a prefix of the entity"},
        {"index at other offsets", {row("bad", "u8 u32", "u8 u32@8")}, ":2: bad", "the index must be a prefix"},
        {"index longer than entity",
         {row("bad", "u32*3", "u32*2")},
         ":2: bad",
         "the index has more fields than the entity"},
        {"unknown kind", {row("bad", "-", "x8")}, ":2: bad", "unknown field kind 'x8'"},
        {"unknown width", {row("bad", "-", "u24")}, ":2: bad", "unknown integer kind 'u24'"},
        {"signed wide", {row("bad", "-", "i32")}, ":2: bad", "unknown integer kind 'i32'"},
        {"zero width", {row("bad", "-", "s0")}, ":2: bad", "unknown field 's0'"},
        {"97 fields", {row("bad", "-", "u8*50 u8*47")}, ":2: bad", "97 fields, the mask holds 96"},
        {"no entity", {row("bad", "-", "-")}, ":2: bad", "no entity record"},
        {"= without index", {row("bad", "-", "=")}, ":2: bad", "entity '=' with no index"},
        {"too big", {row("bad", "-", "s40000 s10000")}, ":2: bad", "does not fit a message"},
        {"bad ops", {row("bad", "-", "u8", "-", "10001", "sge")}, ":2: bad", "ops 'sge' is neither 'sg' nor 'e'"},
        {"bad path", {row("bad", "-", "u8", "-", "10000")}, ":2: bad", "bad path word '10000'"},
        {"long path",
         {row("bad", "-", "u8", "-", "10001.10001.10001.10001.10001.10001.10001.10001.10001.10001")},
         ":2: bad",
         "leaves no room for the terminating zero"},
        {"duplicate", {ok, row("ok", "-", "u8", "-", "10002")}, ":3: ok", "second row of this name (first on line 2)"},
        {"unknown parent",
         {row("bad", "-", "u8", "nope", "10001.10001")},
         ":2: bad",
         "parent 'nope' is not in the catalogue"},
        {"unkeyed parent",
         {row("top", "-", "u8"), row("bad", "-", "u8", "top", "10001.10001")},
         ":3: bad",
         "parent 'top' has no index record to put ahead"},
        {"parent elsewhere",
         {row("top", "u8", "="), row("bad", "-", "u8", "top", "20001.10001")},
         ":3: bad",
         "parent 'top' at 10001 is not above 20001.10001"},
        {"too many slots",
         {row("top", "u8*96", "="), row("bad", "-", "u8*40", "top", "10001.10001")},
         ":3: bad",
         "needs 136 argument slots, a request has 128"},
        {"chain too long",
         {row("top", "s30000", "="), row("bad", "-", "s30000", "top", "10001.10001")},
         ":3: bad",
         "with its parents' index records the data is 60000 bytes"},
        {"short row", {"bad\tsg\t10001"}, ":2: bad", "expected 7 columns, found 3"},
    };
    for (const Bad &c : cases) {
        SCOPED_TRACE(c.what);
        GenRun r = generate(c.rows);
        EXPECT_NE(WEXITSTATUS(r.status), 0);
        EXPECT_NE(line_of(r.output, std::string(c.line_and_name) + ": ").find(c.reason), std::string::npos) << r.output;
        EXPECT_NE(r.output.find("nothing generated"), std::string::npos) << r.output;
        EXPECT_TRUE(r.files.empty()) << "nothing is written for a bad catalogue";
    }
}

TEST(Generator, ReportsEveryBadRowAtOnce) {
    GenRun r = generate({row("a", "-", "u8 u16@1"), row("good", "u8", "="), row("b", "-", "q1")});
    EXPECT_NE(WEXITSTATUS(r.status), 0);
    EXPECT_NE(r.output.find(":2: a: "), std::string::npos) << r.output;
    EXPECT_NE(r.output.find(":4: b: "), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("2 row(s) rejected"), std::string::npos) << r.output;
}

} // namespace
