// The trace-file reader of kemail-trace on arbitrary files, and on rings
// written from records the input describes. On any bytes it must not fail
// and must account for what it reports (every record at an offset inside the
// file, as many records as it counts). On a ring of well-formed records
// (codes of letters and digits, data without marker bytes) that did not
// wrap, it must give back exactly those records, oldest first.
#include "trace_reader.h"

#include "fuzz_support.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

void check_any(const std::string& file, size_t ring_size) {
    trace_reader::Ring ring;
    std::string why;
    if (!trace_reader::read_ring(file, ring_size, &ring, &why)) {
        FUZZ_CHECK(file.size() < 4);
        FUZZ_CHECK(!why.empty());
        return;
    }
    size_t records = 0;
    for (const trace_reader::Item& item : ring.items) {
        if (!item.is_record) continue;
        ++records;
        FUZZ_CHECK(item.record.offset < file.size());
        FUZZ_CHECK(item.record.code.size() + item.record.data.size() <= file.size());
    }
    FUZZ_CHECK(records == ring.records);
    (void)trace_reader::looks_like_trace(file, ring);
}

struct Written {
    uint32_t time;
    std::string code;
    std::string data;
};

// Records described by the input: per record a length byte for the code, one
// for the data, a time byte, then the code's and the data's bytes mapped to
// characters that can never form a marker.
std::vector<Written> describe(const uint8_t* data, size_t size) {
    static const char kCodeChars[] = "abcdfghijklmnopqrtuvwyz0123456789-";
    std::vector<Written> out;
    size_t at = 0;
    while (at + 3 <= size && out.size() < 64) {
        const size_t code_length = 1 + data[at] % 16;
        const size_t data_length = data[at + 1] % 40;
        Written w{static_cast<uint32_t>(1700000000u + data[at + 2]), "", ""};
        at += 3;
        for (size_t i = 0; i < code_length && at < size; ++i, ++at)
            w.code += kCodeChars[data[at] % (sizeof kCodeChars - 1)];
        for (size_t i = 0; i < data_length && at < size; ++i, ++at)
            w.data += static_cast<char>(data[at] % 0x40);  // never 'S', 'X' or 'E'
        out.push_back(std::move(w));
    }
    return out;
}

void check_written(const uint8_t* data, size_t size) {
    const std::vector<Written> records = describe(data, size);
    std::string file(4, '\0');
    for (const Written& w : records) {
        file += "SSSS";
        file.append(reinterpret_cast<const char*>(&w.time), 4);
        file.append(4, '\0');
        file += w.code;
        if (!w.data.empty()) file += "XXXX" + w.data;
        file += "EEEE";
    }
    const uint32_t write_offset = static_cast<uint32_t>(file.size());
    std::memcpy(file.data(), &write_offset, 4);
    file.append(64, '\0');  // unused ring space after the newest record

    trace_reader::Ring ring;
    std::string why;
    FUZZ_CHECK(trace_reader::read_ring(file, 0, &ring, &why));
    std::vector<const trace_reader::Record*> found;
    for (const trace_reader::Item& item : ring.items)
        if (item.is_record) found.push_back(&item.record);
    FUZZ_CHECK(found.size() == records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        FUZZ_CHECK(found[i]->code == records[i].code);
        FUZZ_CHECK(found[i]->data == records[i].data);
        FUZZ_CHECK(found[i]->time == records[i].time);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string file(reinterpret_cast<const char*>(data) + 1, size - 1);
    // The first byte picks the ring size: the whole file, or a cut of it.
    const size_t ring_size = data[0] < 128 ? 0 : (data[0] - 128u) * 16u;
    check_any(file, ring_size);
    check_written(data, size);
    return 0;
}
