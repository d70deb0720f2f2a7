#include <sys/stat.h>
#include <unistd.h>

#include <archive.h>
#include <archive_entry.h>

#include "extractor/extractor.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"
#include "tests/support/test-support.h"

using testsupport::ReadFile;

// Entries are name and bytes; a name ending in '/' is a folder, one starting with '@' a
// symbolic link to its bytes.
static std::string Archive(const std::string& path, const char* format, bool gzip,
                           const std::vector<std::pair<std::string, std::string>>& entries) {
    struct archive* a = archive_write_new();
    archive_write_set_format_by_name(a, format);
    if (gzip)
        archive_write_add_filter_gzip(a);
    archive_write_open_filename(a, path.c_str());
    for (const auto& [name, data] : entries) {
        struct archive_entry* entry = archive_entry_new();
        const bool link = name[0] == '@';
        archive_entry_set_pathname(entry, name.c_str() + link);
        archive_entry_set_mtime(entry, 1000000000, 0);  // 2001: must not reach the disk
        archive_entry_set_filetype(entry, link                 ? AE_IFLNK
                                          : name.back() == '/' ? AE_IFDIR
                                                               : AE_IFREG);
        archive_entry_set_perm(entry, 0755);
        archive_entry_set_size(entry, link ? 0 : data.size());
        archive_entry_set_symlink(entry, link ? data.c_str() : nullptr);
        archive_write_header(a, entry);
        archive_write_data(a, data.data(), link ? 0 : data.size());
        archive_entry_free(entry);
    }
    archive_write_free(a);
    return path;
}

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
    std::vector<std::pair<std::string, std::string>> twelve;
    for (int i = 1; i <= 12; ++i)
        twelve.push_back({"f" + std::to_string(i), std::string(100 * i, 'a' + i)});
    // The eleventh header of a tar of twelve (ten headers and fifteen data blocks on) fails its
    // checksum.
    std::string damaged = ReadFile(Archive(tmp / "damaged", "ustar", false, twelve));
    damaged.replace(25 * 512 + 148, 8, "0000000", 8);
    testsupport::WriteFile(tmp / "damaged", damaged);
    // A 7z holding one empty file whose name was never stored.
    const char nameless[] =
        "7z\xbc\xaf\x27\x1c\0\x04\x1a\xaf\xa1\x3d\0\0\0\0\0\0\0\0\x0b\0\0\0\0\0\0\0AW\xcf\x2d\x01"
        "\x05\x01\x0e\x01\x80\x0f\x01\x80\0";
    testsupport::WriteFile(tmp / "nameless", std::string(nameless, sizeof(nameless)));
    // Hostile entries: an absolute name stays below the target, "../x" is refused. Link targets
    // are kept as stored, so a file "through" a link lands where it points, outside too.
    const struct {
        std::string source, target;
        int count, rc, steps;    // entries counted, Extract's result, progress steps (count*100+i)
        std::string file, data;  // a file below the target and its bytes
        std::string logged;      // a line the row logs, from its number on
    } cases[] = {
        {Archive(tmp / "gz", "pax", true,
                 {{"pkg/", ""}, {"pkg/bin/tool", tool}, {"@pkg/current", "bin/tool"}, {"top", ""}}),
         tmp / "1", 4, 0, 4, "/pkg/current", tool, "159): decompress from '"},
        {Archive(tmp / "empty", "pax", false, {}), tmp / "3", 0, -1, 0, "", "",
         "166): Failed to calculate total file numbers, ret: 0\n"},
        {tmp / "missing", tmp / "4", -1, -1, 0, "", "",
         "76): archive_read_open_filename failed: '"},
        {tmp / "damaged", tmp / "5", 10, -1, 10, "/f10", twelve[9].second,
         "198): archive_read_next_header failed: '"},
        {tmp / "nameless", tmp / "6", 1, -1, 0, "", "", "213): archive_entry_pathname failed"},
        {Archive(tmp / "hostile", "pax", false,
                 {{"@escape", outside}, {"escape/planted", "p"}, {absolute, "x"}, {"../x", "2"}}),
         tmp / "7", 4, -1, 3, absolute, "x", "220): archive_read_extract2 failed: '"},
        {"", tmp / "8", -1, -1, -1, "", "", "155): Invalid Argument\n"},
        {tmp / "gz", "", -1, -1, -1, "", "", "101): Invalid argument\n"},
    };
    testsupport::MakeDirs(outside);
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
    EXPECT_EQ(-1, Extractor().copy_data(nullptr, nullptr));
    EXPECT_NE(std::string::npos, ReadFile(tmp / "log").find("(26): Invalid Argument\n"));
    Logger::Destroy();
}
