#include "opal-package/GoldenFile.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <array>
#include <cstdio>
#include <fstream>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

constexpr size_t kRecordSize = 40;
constexpr size_t kTimeHigh = 8;
constexpr size_t kTimeLow = 12;
constexpr size_t kSize = 28;
constexpr size_t kCrc = 32;
constexpr uint64_t kUnitsPerMs = 10000;

using Record = std::array<uint8_t, kRecordSize>;

void PutWord(Record& record, size_t at, uint64_t value) {
    for (size_t i = 0; i < 4; ++i)
        record[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t WordOf(const Record& record, size_t at) {
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | record[at + i];
    return value;
}

}  // namespace

uint32_t BlockCrc(const uint8_t* data, size_t size) {
    return ~av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), 0xFFFFFFFF, data, size);
}

void WriteGoldenRecord(std::ostream& out, const Block& block) {
    Record record{};
    const uint64_t time = static_cast<uint64_t>(block.timeMs) * kUnitsPerMs;
    PutWord(record, kTimeHigh, time >> 32);
    PutWord(record, kTimeLow, time);
    PutWord(record, kSize, block.data.size());
    PutWord(record, kCrc, BlockCrc(block.data.data(), block.data.size()));
    out.write(reinterpret_cast<const char*>(record.data()), kRecordSize);
}

int DumpGolden(const std::string& path, std::ostream& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw PackageError(Failure::InputOutput, path + ": cannot be read");
    out << path << ": golden file\n";
    Record record{};
    while (in.read(reinterpret_cast<char*>(record.data()), kRecordSize)) {
        const uint64_t time = uint64_t{WordOf(record, kTimeHigh)} << 32 | WordOf(record, kTimeLow);
        char line[96];
        std::snprintf(line, sizeof line, "  block %llu ms, %u bytes, crc %08x\n",
                      static_cast<unsigned long long>(time / kUnitsPerMs), WordOf(record, kSize),
                      WordOf(record, kCrc));
        out << line;
    }
    if (in.bad())
        throw PackageError(Failure::InputOutput, path + ": cannot be read");
    if (in.gcount() > 0) {
        out << "damaged: " << in.gcount() << " bytes behind the last record of " << kRecordSize
            << "\n";
        return static_cast<int>(Failure::Damaged);
    }
    return 0;
}

}  // namespace opal::package
