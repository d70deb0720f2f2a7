#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include <QObject>
#include <QString>

#include "extractor/extractor.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"
#include "tests/support/test-support.h"

namespace {

using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

const time_t kStoredTime = 1000000000;  // 2001: extracted files must not carry it

struct Entry {
    enum Kind { FILE, DIR, SYMLINK, HARDLINK } kind;
    std::string name;
    std::string data;  // contents of a file, or the stored target of a link
};

Entry File(const std::string& name, const std::string& data) {
    return {Entry::FILE, name, data};
}
Entry Dir(const std::string& name) {
    return {Entry::DIR, name, ""};
}
Entry Symlink(const std::string& name, const std::string& to) {
    return {Entry::SYMLINK, name, to};
}
Entry Hardlink(const std::string& name, const std::string& to) {
    return {Entry::HARDLINK, name, to};
}

// Writes an archive in the given libarchive format ("pax", "ustar", "zip", "newc"),
// gzip-compressed on request.
bool WriteArchive(const std::string& path, const char* format, bool gzip,
                  const std::vector<Entry>& entries) {
    struct archive* a = archive_write_new();
    bool ok = archive_write_set_format_by_name(a, format) == ARCHIVE_OK &&
              (!gzip || archive_write_add_filter_gzip(a) == ARCHIVE_OK) &&
              archive_write_open_filename(a, path.c_str()) == ARCHIVE_OK;
    for (const Entry& e : entries) {
        if (!ok)
            break;
        struct archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, e.name.c_str());
        archive_entry_set_mtime(entry, kStoredTime, 0);
        archive_entry_set_size(entry, 0);  // the cpio writer insists on a size for every entry
        switch (e.kind) {
            case Entry::FILE:
                archive_entry_set_filetype(entry, AE_IFREG);
                archive_entry_set_perm(entry, 0644);
                archive_entry_set_size(entry, static_cast<la_int64_t>(e.data.size()));
                break;
            case Entry::DIR:
                archive_entry_set_filetype(entry, AE_IFDIR);
                archive_entry_set_perm(entry, 0755);
                break;
            case Entry::SYMLINK:
                archive_entry_set_filetype(entry, AE_IFLNK);
                archive_entry_set_perm(entry, 0777);
                archive_entry_set_symlink(entry, e.data.c_str());
                break;
            case Entry::HARDLINK:
                archive_entry_set_filetype(entry, AE_IFREG);
                archive_entry_set_perm(entry, 0644);
                archive_entry_set_hardlink(entry, e.data.c_str());
                break;
        }
        ok = archive_write_header(a, entry) == ARCHIVE_OK;
        if (ok && e.kind == Entry::FILE && !e.data.empty()) {
            ok = archive_write_data(a, e.data.data(), e.data.size()) ==
                 static_cast<la_ssize_t>(e.data.size());
        }
        archive_entry_free(entry);
    }
    ok = archive_write_close(a) == ARCHIVE_OK && ok;
    archive_write_free(a);
    return ok;
}

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool SameFile(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

std::string ReadLink(const std::string& path) {
    char buf[PATH_MAX];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// What the dialog would have been told, in order.
class Recorder {
public:
    Recorder() {
        Notify_Adapter* adapter = Notify_Adapter::GetInstance();
        QObject::connect(adapter, &Notify_Adapter::sigUpdateDialogText, &context_,
                         [this](QString text) {
                             events.push_back({text.toStdString(), 0, 0});
                         });
        QObject::connect(adapter, &Notify_Adapter::sigUpdateProgress, &context_,
                         [this](int total, int current) {
                             events.push_back({"", total, current});
                             if (on_progress)
                                 on_progress(total, current);
                         });
    }
    struct Event {
        std::string text;  // empty for a progress call
        int total, current;
    };
    std::vector<Event> events;
    std::function<void(int, int)> on_progress;

    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const Event& e : events) {
            if (!e.text.empty())
                texts.push_back(e.text);
        }
        return texts;
    }
    std::vector<std::pair<int, int>> Progress() const {
        std::vector<std::pair<int, int>> progress;
        for (const Event& e : events) {
            if (e.text.empty())
                progress.emplace_back(e.total, e.current);
        }
        return progress;
    }

private:
    QObject context_;  // connections end with the recorder
};

std::vector<std::pair<int, int>> Steps(int total, int last) {
    std::vector<std::pair<int, int>> steps;
    for (int i = 1; i <= last; ++i)
        steps.emplace_back(total, i);
    return steps;
}

const char kLabel[] = "Corvane Quarn Client is initializing...";

class ExtractorTest : public ::testing::Test {
protected:
    void SetUp() override {
        StrTable::InitStrTable();
        ASSERT_TRUE(WriteFile(tmp / "levels", "extractor_debug=7\n"));
        ASSERT_EQ(Logger::Initialize(Logger::TYPE_FILE, tmp / "log", tmp / "levels", 50,
                                     Logger::SCOPE_THREAD),
                  0);
        ASSERT_TRUE(testsupport::MakeDirs(target));
    }
    void TearDown() override { Logger::Destroy(); }

    Extractor Make(const std::string& source, const std::string& to) {
        Extractor x;
        x.SetSource(source);
        x.SetTarget(to);
        return x;
    }
    int Extract(const std::string& source) { return Make(source, target).Extract(); }
    int Count(const std::string& source) { return Make(source, target).Count(); }

    // True when the log holds the message at the given level and line, prefix and all.
    bool Logged(const char* level, int line, const std::string& text) {
        return ReadFile(tmp / "log")
                   .find(std::string("[") + level + "] extractor.cpp(" + std::to_string(line) +
                         "): " + text) != std::string::npos;
    }

    TempDir tmp;
    const std::string target = tmp / "target";
    Recorder rec;
};

// Every format the package may come in unpacks the same way below the target.
class ExtractorFormats : public ExtractorTest,
                         public ::testing::WithParamInterface<std::pair<const char*, bool>> {};

TEST_P(ExtractorFormats, UnpacksBelowTargetWithProgressPerEntry) {
    const std::vector<Entry> entries = {
        Dir("pkg/"),
        File("pkg/bin/tool", "#!/bin/sh\necho tool\n"),
        File("pkg/readme.txt", std::string(70000, 'r')),  // spans several read blocks
        Symlink("pkg/current", "bin/tool"),
        File("top.txt", ""),
    };
    const std::string source = tmp / "package";
    ASSERT_TRUE(WriteArchive(source, GetParam().first, GetParam().second, entries));

    // Each progress call comes after its entry is on disk.
    std::vector<bool> on_disk;
    rec.on_progress = [&](int, int current) {
        on_disk.push_back(Exists(target + "/" + entries[current - 1].name));
    };
    const time_t started = time(nullptr);
    ASSERT_EQ(Count(source), 5);
    ASSERT_EQ(Extract(source), 0);

    struct stat st;
    ASSERT_EQ(stat((target + "/pkg").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(ReadFile(target + "/pkg/bin/tool"), "#!/bin/sh\necho tool\n");
    EXPECT_EQ(ReadFile(target + "/pkg/readme.txt"), std::string(70000, 'r'));
    EXPECT_EQ(ReadLink(target + "/pkg/current"), "bin/tool");
    EXPECT_EQ(ReadFile(target + "/pkg/current"), "#!/bin/sh\necho tool\n");
    EXPECT_TRUE(Exists(target + "/top.txt"));
    // Times are not restored: the files carry the time they were unpacked.
    ASSERT_EQ(stat((target + "/pkg/readme.txt").c_str(), &st), 0);
    EXPECT_GE(st.st_mtime, started);

    ASSERT_FALSE(rec.events.empty());
    EXPECT_EQ(rec.events.front().text, kLabel);
    EXPECT_EQ(rec.Texts().size(), 1u);
    EXPECT_EQ(rec.Progress(), Steps(5, 5));
    EXPECT_EQ(on_disk, std::vector<bool>(5, true));
    EXPECT_TRUE(Logged("DEBUG", 159, "decompress from '" + source + "' to '" + target + "'\n"));

    testing::internal::CaptureStdout();
    EXPECT_EQ(Make(source, target).List(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "pkg/\npkg/bin/tool\npkg/readme.txt\npkg/current\ntop.txt\n");
}

INSTANTIATE_TEST_SUITE_P(
    All, ExtractorFormats,
    ::testing::Values(std::make_pair("pax", false), std::make_pair("pax", true),
                      std::make_pair("zip", false), std::make_pair("newc", false)),
    [](const auto& info) {
        return std::string(info.param.first) + (info.param.second ? "_gz" : "");
    });

TEST_F(ExtractorTest, EmptySourceOrTargetFailsBeforeOpeningAnything) {
    const std::string missing = tmp / "no-such-archive";
    for (auto [source, to] :
         {std::make_pair(std::string(), target), std::make_pair(missing, std::string())}) {
        Extractor x = Make(source, to);
        EXPECT_EQ(x.Count(), -1);
        EXPECT_EQ(x.List(), -1);
        EXPECT_EQ(x.Extract(), -1);
    }
    EXPECT_TRUE(Logged("ERROR", 59, "Invalid argument\n"));
    EXPECT_TRUE(Logged("ERROR", 101, "Invalid argument\n"));
    EXPECT_TRUE(Logged("ERROR", 155, "Invalid Argument\n"));
    EXPECT_EQ(ReadFile(tmp / "log").find("failed"), std::string::npos);
    EXPECT_TRUE(rec.events.empty());
}

TEST_F(ExtractorTest, EmptyArchiveIsAFailedExtraction) {
    const std::string source = tmp / "empty.tar";
    ASSERT_TRUE(WriteArchive(source, "pax", false, {}));
    EXPECT_EQ(Count(source), 0);
    EXPECT_EQ(Extract(source), -1);
    EXPECT_TRUE(Logged("ERROR", 166, "Failed to calculate total file numbers, ret: 0\n"));
    // The label goes up before counting, so it shows even when counting fails.
    ASSERT_EQ(rec.events.size(), 1u);
    EXPECT_EQ(rec.events[0].text, kLabel);
}

TEST_F(ExtractorTest, MissingArchiveFailsThroughTheCount) {
    const std::string source = tmp / "no-such-archive";
    EXPECT_EQ(Count(source), -1);
    EXPECT_TRUE(Logged("ERROR", 76, "archive_read_open_filename failed: '"));
    EXPECT_EQ(Extract(source), -1);
    EXPECT_TRUE(Logged("ERROR", 166, "Failed to calculate total file numbers, ret: -1\n"));
    EXPECT_EQ(rec.Texts(), std::vector<std::string>{kLabel});
    EXPECT_TRUE(rec.Progress().empty());
}

// A tar of twelve files whose eleventh header fails its checksum.
TEST_F(ExtractorTest, DamagedArchiveKeepsTheEntriesBeforeTheDamage) {
    std::vector<Entry> entries;
    for (int i = 1; i <= 12; ++i) {
        entries.push_back(File("f" + std::to_string(i), std::string(100 * i, 'a' + i)));
    }
    const std::string source = tmp / "damaged.tar";
    ASSERT_TRUE(WriteArchive(source, "ustar", false, entries));
    std::string bytes = ReadFile(source);
    size_t header = 0;
    for (int i = 1; i < 11; ++i) {
        const size_t size = std::stoul(bytes.substr(header + 124, 12), nullptr, 8);
        header += 512 + (size + 511) / 512 * 512;
    }
    ASSERT_EQ(bytes.substr(header, 3), std::string("f11"));
    bytes.replace(header + 148, 8, "0000000", 8);
    ASSERT_TRUE(WriteFile(source, bytes));

    EXPECT_EQ(Count(source), 10);
    EXPECT_EQ(Extract(source), -1);
    for (int i = 1; i <= 10; ++i) {
        EXPECT_EQ(ReadFile(target + "/f" + std::to_string(i)), entries[i - 1].data);
    }
    EXPECT_FALSE(Exists(target + "/f11"));
    EXPECT_FALSE(Exists(target + "/f12"));
    EXPECT_EQ(rec.Progress(), Steps(10, 10));
    EXPECT_TRUE(Logged("ERROR", 198, "archive_read_next_header failed: '"));
}

TEST_F(ExtractorTest, EntryClimbingOutOfTheTargetIsRefused) {
    const std::string source = tmp / "climb.tar";
    ASSERT_TRUE(WriteArchive(source, "pax", false, {File("ok", "1"), File("../x", "2")}));
    EXPECT_EQ(Extract(source), -1);
    EXPECT_TRUE(Exists(target + "/ok"));
    EXPECT_FALSE(Exists(tmp / "x"));
    // No progress for the refused entry: the dialog stays at 1 of 2.
    EXPECT_EQ(rec.Progress(), Steps(2, 1));
    EXPECT_TRUE(Logged("ERROR", 220, "archive_read_extract2 failed: '"));
}

TEST_F(ExtractorTest, AbsoluteEntryStaysInsideTheTarget) {
    const std::string source = tmp / "absolute.tar";
    const std::string name = "/lq-extractor-absolute-probe/evil";
    ASSERT_TRUE(WriteArchive(source, "pax", false, {File(name, "x")}));
    EXPECT_EQ(Extract(source), 0);
    EXPECT_EQ(ReadFile(target + name), "x");
    EXPECT_FALSE(Exists("/lq-extractor-absolute-probe"));
}

// Link targets are stored as they are, never moved below the target. These tests pin down
// what that means, so that a change to it is a deliberate one.

// A symbolic link followed by a file "through" it: the writer follows the link, so the file
// lands wherever the link points, also outside the target.
TEST_F(ExtractorTest, FileThroughAnEarlierSymlinkIsWrittenWhereTheLinkPoints) {
    const std::string outside = tmp / "outside";
    ASSERT_TRUE(testsupport::MakeDirs(outside));
    const std::string source = tmp / "symlink-then-file.tar";
    ASSERT_TRUE(WriteArchive(source, "pax", false,
                             {Symlink("escape", outside), File("escape/planted", "p")}));
    EXPECT_EQ(Extract(source), 0);
    EXPECT_EQ(ReadLink(target + "/escape"), outside);
    EXPECT_EQ(ReadFile(outside + "/planted"), "p");
}

// A hard link's stored target is resolved against the working folder of the process, not
// below the target folder.
TEST_F(ExtractorTest, HardlinkTargetIsResolvedAgainstTheWorkingFolder) {
    const std::string source = tmp / "hardlink.tar";
    ASSERT_TRUE(WriteArchive(source, "pax", false, {File("a", "shared"), Hardlink("b", "a")}));
    const std::string elsewhere = tmp / "elsewhere";
    ASSERT_TRUE(testsupport::MakeDirs(elsewhere));
    auto extract_from = [&](const std::string& cwd) {
        return testsupport::RunInChild([&]() {
            if (chdir(cwd.c_str()) != 0)
                return 2;
            return Extract(source) == 0 ? 0 : 1;
        });
    };
    EXPECT_EQ(extract_from(elsewhere), 1);
    EXPECT_FALSE(Exists(target + "/b"));
    EXPECT_EQ(extract_from(target), 0);
    EXPECT_TRUE(SameFile(target + "/a", target + "/b"));
}

// An absolute hard-link target is taken as it stands: the entry becomes a second name of a
// file outside the target (on the same file system).
TEST_F(ExtractorTest, AbsoluteHardlinkTargetReachesOutsideTheTarget) {
    const std::string outside = tmp / "outside-file";
    ASSERT_TRUE(WriteFile(outside, "kept"));
    const std::string source = tmp / "absolute-hardlink.tar";
    ASSERT_TRUE(WriteArchive(source, "pax", false, {Hardlink("grab", outside)}));
    EXPECT_EQ(Extract(source), 0);
    EXPECT_TRUE(SameFile(target + "/grab", outside));
}

TEST_F(ExtractorTest, CopyDataPoursOneEntryIntoTheWriter) {
    Extractor x;
    EXPECT_EQ(x.copy_data(nullptr, nullptr), -1);
    EXPECT_TRUE(Logged("ERROR", 26, "Invalid Argument\n"));

    const std::string source = tmp / "one.tar.gz";
    const std::string data(50000, 'd');
    ASSERT_TRUE(WriteArchive(source, "pax", true, {File("one", data)}));
    struct archive* reader = archive_read_new();
    archive_read_support_filter_all(reader);
    archive_read_support_format_all(reader);
    ASSERT_EQ(archive_read_open_filename(reader, source.c_str(), 10240), ARCHIVE_OK);
    struct archive* writer = archive_write_disk_new();
    struct archive_entry* entry = nullptr;
    ASSERT_EQ(archive_read_next_header(reader, &entry), ARCHIVE_OK);
    archive_entry_set_pathname(entry, (target + "/one").c_str());
    ASSERT_EQ(archive_write_header(writer, entry), ARCHIVE_OK);
    EXPECT_EQ(x.copy_data(reader, writer), 0);
    archive_write_finish_entry(writer);
    archive_write_free(writer);
    archive_read_free(reader);
    EXPECT_EQ(ReadFile(target + "/one"), data);
}

}  // namespace
