#include <archive.h>
#include <archive_entry.h>

#include "extractor/extractor.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"
#include "tests/support/test-support.h"

using testsupport::ReadFile;

namespace {

struct Entry {
    std::string name;
    mode_t type;       // AE_IFREG, AE_IFDIR or AE_IFLNK
    std::string data;  // a file's bytes, or a link's target
};

// A ustar archive from libarchive's own writer, gzip-compressed when asked.
std::string Archive(const std::vector<Entry>& entries, bool gzip = false) {
    std::string bytes(1 << 20, '\0');
    size_t used = 0;
    struct archive* a = archive_write_new();
    archive_write_set_format_ustar(a);
    if (gzip)
        archive_write_add_filter_gzip(a);
    archive_write_open_memory(a, bytes.data(), bytes.size(), &used);
    for (const Entry& e : entries) {
        struct archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, e.name.c_str());
        archive_entry_set_filetype(entry, e.type);
        archive_entry_set_perm(entry, e.type == AE_IFDIR ? 0755 : 0644);
        archive_entry_set_mtime(entry, 1000000000, 0);  // 2001: must not reach the disk
        if (e.type == AE_IFLNK)
            archive_entry_set_symlink(entry, e.data.c_str());
        else
            archive_entry_set_size(entry, static_cast<la_int64_t>(e.data.size()));
        archive_write_header(a, entry);
        archive_write_data(a, e.data.data(), e.type == AE_IFLNK ? 0 : e.data.size());
        archive_entry_free(entry);
    }
    archive_write_close(a);
    archive_write_free(a);
    return bytes.substr(0, used);
}

}  // namespace

TEST(Extractor, ArchivesAndWhatTheyLeave) {
    testsupport::TempDir tmp;
    ASSERT_TRUE(testsupport::WriteFile(tmp / "levels", "extractor_debug=7\n"));
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, tmp / "log", tmp / "levels", 50,
                                    Logger::SCOPE_THREAD));
    StrTable::InitStrTable();
    QObject context;    // the connections end with the test
    std::string shown;  // what the dialog is told, in order
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateDialogText, &context,
                     [&](QString text) { shown += text.toStdString() + ";"; });
    QObject::connect(Notify_Adapter::GetInstance(), &Notify_Adapter::sigUpdateProgress, &context,
                     [&](int total, int at) { shown += std::to_string(total * 100 + at) + ";"; });
    const std::string tool = "#!/bin/sh\necho tool\n", outside = tmp / "outside",
                      absolute = "/lq-extractor-absolute-probe/evil";
    testsupport::MakeDirs(outside);
    testsupport::WriteFile(tmp / "package", Archive({{"pkg/", AE_IFDIR, ""},
                                                     {"pkg/bin/", AE_IFDIR, ""},
                                                     {"pkg/bin/tool", AE_IFREG, tool},
                                                     {"pkg/current", AE_IFLNK, "bin/tool"},
                                                     {"top", AE_IFREG, ""}},
                                                    true));
    testsupport::WriteFile(tmp / "empty", std::string(10240, '\0'));
    // Twelve files of 100, 200, ... bytes; the eleventh header fails its checksum.
    std::vector<Entry> twelve;
    for (int i = 1; i <= 12; ++i)
        twelve.push_back({"f" + std::to_string(i), AE_IFREG, std::string(100 * i, 'x')});
    std::string damaged = Archive(twelve);
    damaged.replace(damaged.find("f11") + 148, 8, "0000000", 8);  // the name opens the header
    testsupport::WriteFile(tmp / "damaged", damaged);
    // A file with an empty stored name, which the writer refuses: "x" blanked, checksum mended.
    std::string nameless = Archive({{"x", AE_IFREG, "a"}});
    nameless[0] = '\0';
    char checksum[8];
    snprintf(checksum, sizeof(checksum), "%06lo",
             std::stoul(nameless.substr(148, 6), nullptr, 8) - 'x');
    nameless.replace(148, 7, checksum, 7);
    testsupport::WriteFile(tmp / "nameless", nameless);
    // A file through a stored link lands where it points, "/..." stays below, "../x" is refused.
    testsupport::WriteFile(tmp / "hostile", Archive({{"escape", AE_IFLNK, outside},
                                                     {"escape/planted", AE_IFREG, "p"},
                                                     {absolute, AE_IFREG, "x"},
                                                     {"../x", AE_IFREG, "2"}}));
    const struct {
        std::string source, target;
        int count, rc, steps;    // entries counted, Extract's result, progress steps (count*100+i)
        std::string file, data;  // a file below the target and its bytes
        std::string logged;      // a line the row logs, from its number on
    } cases[] = {
        {tmp / "package", tmp / "1", 5, 0, 5, "/pkg/current", tool, "159): decompress from '"},
        {tmp / "empty", tmp / "3", 0, -1, 0, "", "",
         "166): Failed to calculate total file numbers, ret: 0\n"},
        {tmp / "missing", tmp / "4", -1, -1, 0, "", "",
         "76): archive_read_open_filename failed: '"},
        {tmp / "damaged", tmp / "5", 10, -1, 10, "/f10", std::string(1000, 'x'),
         "198): archive_read_next_header failed: '"},
        {tmp / "nameless", tmp / "6", 1, -1, 0, "", "", "213): archive_entry_pathname failed"},
        {tmp / "hostile", tmp / "7", 4, -1, 3, absolute, "x",
         "220): archive_read_extract2 failed: '"},
        {"", tmp / "8", -1, -1, -1, "", "", "155): Invalid Argument\n"},
        {tmp / "package", "", -1, -1, -1, "", "", "101): Invalid argument\n"},
    };
    for (const auto& c : cases) {
        testsupport::MakeDirs(c.target);
        Extractor x;
        x.SetSource(c.source);
        x.SetTarget(c.target);
        shown.clear();
        EXPECT_EQ(c.count, x.Count()) << c.source;
        EXPECT_EQ(c.count < 0 ? -1 : 0, x.List()) << c.source;
        EXPECT_EQ(c.rc, x.Extract()) << c.source;
        std::string expected = c.steps < 0 ? "" : "Corvane Quarn Client is initializing...;";
        for (int i = 1; i <= c.steps; ++i)
            expected += std::to_string(c.count * 100 + i) + ";";
        EXPECT_EQ(expected, shown) << c.source;
        EXPECT_EQ(c.data, ReadFile(c.target + c.file)) << c.source;
        const std::string log = ReadFile(tmp / "log");
        EXPECT_NE(std::string::npos, log.find("] extractor.cpp(" + c.logged)) << c.logged;
        struct stat st;  // unpacked files carry the time they were unpacked
        EXPECT_TRUE(c.file.empty() ||
                    (stat((c.target + c.file).c_str(), &st) == 0 && st.st_mtime > 1000000000));
    }
    EXPECT_EQ("p", ReadFile(outside + "/planted"));
    EXPECT_EQ(-1, access("/lq-extractor-absolute-probe", F_OK));
    EXPECT_EQ(-1, access((tmp / "x").c_str(), F_OK));
    Logger::Destroy();
}
