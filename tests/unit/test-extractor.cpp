#include "extractor/extractor.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"
#include "tests/support/test-support.h"

using testsupport::ReadFile;

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
    // Files dated 2001, a date that must not reach the disk. In twelve files of 100, 200, ...
    // bytes, the eleventh header fails its checksum. Hostile: an absolute name stays below the
    // target, "../x" is refused, a file "through" a stored link lands where it points.
    ASSERT_TRUE(
        testsupport::WriteFile(tmp / "make", R"(set -e; cd "$1"; mkdir -p s/pkg/bin outside; cd s
printf '#!/bin/sh\necho tool\n' >pkg/bin/tool; ln -s bin/tool pkg/current; : >top
echo -n p >planted; echo -n x >evil; echo -n 2 >two; ln -s "$1/outside" escape
for i in $(seq 12); do head -c $((100 * i)) /dev/zero | tr '\0' x >f$i; done
T='tar --mtime=@1000000000'; $T -czf ../gz pkg top; $T -cf ../empty -T /dev/null
$T --format=ustar -cf ../damaged $(seq -f f%g 12)
$T -P -cf ../hostile --transform="s,^planted$,escape/planted,;s,^evil$,$2,;s,^two$,../x," \
    escape planted evil two)"));
    ASSERT_EQ(0, system(("sh " + tmp / "make " + tmp.path() + " " + absolute).c_str()));
    std::string damaged = ReadFile(tmp / "damaged");
    damaged.replace(25 * 512 + 148, 8, "0000000", 8);
    testsupport::WriteFile(tmp / "damaged", damaged);
    // A 7z holding one empty file whose name was never stored.
    const char nameless[] =
        "7z\xbc\xaf\x27\x1c\0\x04\x1a\xaf\xa1\x3d\0\0\0\0\0\0\0\0\x0b\0\0\0\0\0\0\0AW\xcf\x2d\x01"
        "\x05\x01\x0e\x01\x80\x0f\x01\x80\0";
    testsupport::WriteFile(tmp / "nameless", std::string(nameless, sizeof(nameless)));
    const struct {
        std::string source, target;
        int count, rc, steps;    // entries counted, Extract's result, progress steps (count*100+i)
        std::string file, data;  // a file below the target and its bytes
        std::string logged;      // a line the row logs, from its number on
    } cases[] = {
        {tmp / "gz", tmp / "1", 5, 0, 5, "/pkg/current", tool, "159): decompress from '"},
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
        {tmp / "gz", "", -1, -1, -1, "", "", "101): Invalid argument\n"},
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
