// Writing trace records into the mapped ring. A write is a handful of memory
// copies under the trace lock: no system call, no growth of the file, and
// errno is left exactly as the caller had it.
#include "log/log.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace kemail {

namespace {

size_t ring_size(const TraceHandle* handle) { return static_cast<size_t>(handle->size_kb) * 1024; }

uint32_t load_offset(const TraceHandle* handle) {
    uint32_t offset;
    std::memcpy(&offset, handle->map, sizeof offset);
    return offset;
}

void store_offset(TraceHandle* handle, size_t offset) {
    const uint32_t word = static_cast<uint32_t>(offset);
    std::memcpy(handle->map, &word, sizeof word);
}

}  // namespace

void Trc_PutRing(TraceHandle* handle, const void* bytes, size_t count) {
    const size_t size = ring_size(handle);
    const size_t pos = load_offset(handle);
    // Only an over-long code text could exceed the ring; keep every piece
    // inside it so that a wrap never writes past the mapping.
    if (count > size - trace_format::kHeaderSize) count = size - trace_format::kHeaderSize;
    const unsigned char* source = static_cast<const unsigned char*>(bytes);
    if (pos + count < size) {
        std::memcpy(handle->map + pos, source, count);
        store_offset(handle, pos + count);
        return;
    }
    const size_t head = size - pos;
    const size_t rest = count - head;
    std::memcpy(handle->map + pos, source, head);
    std::memcpy(handle->map + trace_format::kHeaderSize, source + head, rest);
    store_offset(handle, trace_format::kHeaderSize + rest);
}

}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API int Twrite(TraceHandle* pHandle, unsigned int ulLevel, const char* pszCode,
                      const void* pData, unsigned int ulLength) noexcept {
    const int saved_errno = errno;
    if (!pHandle || ulLevel > 2) return -1;
    if (pHandle->level == 0 || pHandle->level < ulLevel || !pHandle->map) {
        errno = saved_errno;
        return 0;
    }
    // time() is served by the vDSO: no system call.
    const uint32_t now = static_cast<uint32_t>(time(nullptr));
    const uint32_t reserved = 0;
    const size_t code_length = pszCode ? std::strlen(pszCode) : 0;
    size_t data_length = ulLength;
    const size_t data_limit = static_cast<size_t>(pHandle->size_kb) * 512;
    if (data_length > data_limit) data_length = data_limit;

    if (Trc_Lock() == 0) {
        const size_t pos = load_offset(pHandle);
        // A write offset outside the ring (3 or less, or past its end) blocks
        // all writing to this file rather than writing out of place.
        if (pos >= trace_format::kHeaderSize && pos <= ring_size(pHandle)) {
            Trc_PutRing(pHandle, trace_format::kStart, trace_format::kMarkerSize);
            Trc_PutRing(pHandle, &now, sizeof now);
            Trc_PutRing(pHandle, &reserved, sizeof reserved);
            if (code_length) Trc_PutRing(pHandle, pszCode, code_length);
            if (pData && data_length) {
                Trc_PutRing(pHandle, trace_format::kData, trace_format::kMarkerSize);
                Trc_PutRing(pHandle, pData, data_length);
            }
            Trc_PutRing(pHandle, trace_format::kEnd, trace_format::kMarkerSize);
        }
        Trc_Unlock();
    }
    errno = saved_errno;
    return 0;
}

}  // extern "C"
