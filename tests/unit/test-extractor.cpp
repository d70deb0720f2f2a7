#include "extractor/extractor.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"
#include "tests/support/test-support.h"

using testsupport::ReadFile;

namespace {

// A ustar archive written byte by byte, so that every libarchive reads the same bytes.
class Tar {
public:
    void Add(const std::string& name, char type, const std::string& data = "",
             const std::string& link = "") {
        std::string header(512, '\0');
        header.replace(0, name.size(), name);
        header.replace(100, 7, type == '5' ? "0000755" : "0000644");
        header.replace(124, 11, Octal(data.size(), 11));
        header.replace(136, 11, Octal(1000000000, 11));  // 2001: must not reach the disk
        header[156] = type;
        header.replace(157, link.size(), link);
        header.replace(257, 8,
                       std::string("ustar\0"
                                   "00",
                                   8));
        header.replace(148, 8, "        ");
        unsigned sum = 0;
        for (unsigned char c : header)
            sum += c;
        header.replace(148, 7, Octal(sum, 6) + '\0');
        headers_.push_back(bytes_.size());
        bytes_ += header + data + std::string((512 - data.size() % 512) % 512, '\0');
    }
    std::string Bytes() const { return bytes_ + std::string(1024, '\0'); }
    size_t HeaderAt(size_t index) const { return headers_.at(index); }

private:
    static std::string Octal(unsigned long value, int width) {
        char text[24];
        std::snprintf(text, sizeof(text), "%0*lo", width, value);
        return text;
    }
    std::string bytes_;
    std::vector<size_t> headers_;
};

void AppendLe32(std::string& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out += static_cast<char>(value >> shift);
}

// gzip of one stored deflate block (data under 64 KiB): bytes no compressor version sways.
std::string Gzip(const std::string& data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    const uint32_t size = static_cast<uint32_t>(data.size());
    std::string out("\x1f\x8b\x08\0\0\0\0\0\0\x03\x01", 11);
    AppendLe32(out, (size & 0xffff) | (~size << 16));
    out += data;
    AppendLe32(out, ~crc);
    AppendLe32(out, size);
    return out;
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
    Tar package;
    package.Add("pkg/", '5');
    package.Add("pkg/bin/", '5');
    package.Add("pkg/bin/tool", '0', tool);
    package.Add("pkg/current", '2', "", "bin/tool");
    package.Add("top", '0');
    testsupport::WriteFile(tmp / "gz", Gzip(package.Bytes()));
    testsupport::WriteFile(tmp / "empty", std::string(10240, '\0'));
    // Twelve files of 100, 200, ... bytes; the eleventh header fails its checksum.
    Tar damaged;
    for (int i = 1; i <= 12; ++i)
        damaged.Add("f" + std::to_string(i), '0', std::string(100 * i, 'x'));
    std::string damaged_bytes = damaged.Bytes();
    damaged_bytes.replace(damaged.HeaderAt(10) + 148, 8, "0000000", 8);
    testsupport::WriteFile(tmp / "damaged", damaged_bytes);
    // One file whose stored name is empty.
    Tar nameless;
    nameless.Add("", '0', "a");
    testsupport::WriteFile(tmp / "nameless", nameless.Bytes());
    // Hostile: a file "through" a stored link lands where it points, an absolute name stays
    // below the target, "../x" is refused.
    Tar hostile;
    hostile.Add("escape", '2', "", outside);
    hostile.Add("escape/planted", '0', "p");
    hostile.Add(absolute, '0', "x");
    hostile.Add("../x", '0', "2");
    testsupport::WriteFile(tmp / "hostile", hostile.Bytes());
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
