// Running a command line and loading shared libraries at run time.
#include <cerrno>
#include <cstdlib>

#include <dlfcn.h>

#include "kemail.h"
#include "util/util.h"

namespace {

// The one positive result of system() taken as its own failure.
constexpr int kSystemFailed = 127;

}  // namespace

extern "C" {

KEMAIL_API int ExecCommand(const char* pszCommand) noexcept {
    const int status = std::system(pszCommand);
    // Kept: only a negative result or exactly 127 is a failure. The wait
    // status is not decoded, so a command that exits with any status is a
    // success, 127 ("not found", wait status 127 << 8) included; glibc also
    // reports a shell it could not start that way
    // (tests ExecCommand.AnyExitStatusIsSuccess,
    // ExecCommand.ShellThatCannotBeStartedLooksLikeExitStatus127).
    if (status < 0 || status == kSystemFailed) return -1;
    return 0;
}

KEMAIL_API void* DLLOpen(const char* pszLibrary) noexcept {
    // A null name is dlopen's own: the running program.
    if (pszLibrary != nullptr && !kemail::path_acceptable(pszLibrary)) return nullptr;
    return ::dlopen(pszLibrary, RTLD_LAZY);
}

KEMAIL_API int DLLClose(void* pLibrary) noexcept {
    if (pLibrary == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return ::dlclose(pLibrary);
}

KEMAIL_API void* DLLGetProcAddress(void* pLibrary, const char* pszSymbol) noexcept {
    // A null library handle is RTLD_DEFAULT: the global search order.
    if (pszSymbol == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return ::dlsym(pLibrary, pszSymbol);
}

}  // extern "C"
