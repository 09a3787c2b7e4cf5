// The generator's checks of the catalogue: a row it cannot lay out stops it,
// naming the row and the reason, and nothing is written.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct GenRun {
    int status = -1;
    std::string output;
    std::vector<std::string> files;
    std::string text; // all that was written
};

// Runs the generator on a catalogue made of these rows (tab-separated columns).
GenRun generate(const std::vector<std::string> &rows, int chunks = 2) {
    char tmpl[] = "/tmp/mgmt-objgen-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    const fs::path base = tmpl, tsv = base / "catalogue.tsv", out = base / "out";
    fs::create_directory(out);
    {
        std::ofstream f(tsv);
        f << "# name\tops\tpath\tapp\tparent\tindex\tentity\n";
        for (const auto &r : rows) f << r << "\n";
    }
    GenRun run;
    const std::string cmd = std::string(MGMT_OBJGEN) + " " + tsv.string() + " " + out.string() + " " + out.string() +
                            " " + std::to_string(chunks) + " 2>&1";
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) run.output.append(buf, n);
        run.status = pclose(p);
    }
    for (const auto &e : fs::directory_iterator(out)) {
        run.files.push_back(e.path().filename().string());
        std::ifstream in(e.path());
        run.text.append(std::istreambuf_iterator<char>(in), {});
    }
    fs::remove_all(base);
    return run;
}

std::string row(const std::string &name, const std::string &index, const std::string &entity,
                const std::string &parent = "-", const std::string &path = "10001", const std::string &ops = "sg") {
    return name + "\t" + ops + "\t" + path + "\t1\t" + parent + "\t" + index + "\t" + entity;
}

TEST(Generator, GoodCatalogueGivesHeaderTableAndChunks) {
    GenRun r = generate({row("top", "s32", "s32 u32", "-", "10001"), row("top_child", "u8", "=", "top", "10001.10001"),
                         row("top_act", "-", "u64 b16", "-", "10002", "e"), row("top_sized", "u32", "u32 =8", "-", "10003")},
                        3);
    EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.output;
    // An index of all the fields is the whole record, its set length included: 1 field, 1 key, 1 slot, 8 and 8.
    EXPECT_NE(r.text.find("1, 1, 1, 8u, 8u,"), std::string::npos);
    std::sort(r.files.begin(), r.files.end());
    EXPECT_EQ(r.files, (std::vector<std::string>{"catalogue_data.cpp", "objects.exports", "objects_0.cpp",
                                                 "objects_1.cpp", "objects_2.cpp", "objects_gen.h",
                                                 "records_gen.h"}));
}

struct Bad {
    std::vector<std::string> rows;
    const char *reason;
    const char *where = ":2: bad"; // ":<line>: <name>"
};

TEST(Generator, RejectsRowsItCannotLayOut) {
    const std::string ok = row("ok", "u32", "=");
    std::string ten = "10001";
    for (int i = 0; i < 9; ++i) ten += ".10001";
    // One row for each family of checks: alignment, index, kinds, mask, size, path, names, parents, columns.
    const std::vector<Bad> cases = {
        {{ok, row("bad", "-", "u8 u32@5")}, "field 1 'u32@5': offset 5 breaks its alignment of 4", ":3: bad"},
        {{row("bad", "u8 u32", "u8 u32@8")}, "the index must be a prefix"},
        {{row("bad", "-", "x8")}, "unknown field kind 'x8'"},
        {{row("bad", "-", "u8*50 u8*47")}, "97 fields, the mask holds 96"},
        {{row("bad", "-", "s40000 s10000")}, "does not fit a message"},
        {{row("bad", "-", "u8", "-", ten)}, "leaves no room for the terminating zero"},
        {{ok, row("ok", "-", "u8", "-", "10002")}, "second row of this name (first on line 2)", ":3: ok"},
        {{row("bad", "-", "u8", "nope", "10001.10001")}, "parent 'nope' is not in the catalogue"},
        {{row("top", "u8*96", "="), row("bad", "-", "u8*40", "top", "10001.10001")},
         "needs 136 argument slots, a request has 128",
         ":3: bad"},
        {{"bad\tsg\t10001"}, "expected 7 columns, found 3"},
    };
    for (const Bad &c : cases) {
        SCOPED_TRACE(c.reason);
        GenRun r = generate(c.rows);
        EXPECT_NE(WEXITSTATUS(r.status), 0);
        // The reason stands on the line that names the row.
        const size_t at = r.output.find(std::string(c.where) + ": ");
        EXPECT_NE(at, std::string::npos) << r.output;
        EXPECT_LT(r.output.find(c.reason, at), r.output.find('\n', at)) << r.output;
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
