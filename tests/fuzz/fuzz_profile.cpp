// The ini-file reader and writer on arbitrary file contents, in a temporary
// directory of its own: open, look up, change one entry, write back, open
// again. What the second open finds must be what the first found with the
// change made (a rewrite drops only comments, ignored lines and sections
// without entries), and every look-up must give the first match, cut to the
// caller's buffer.
#include "kemail.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

struct Section {
    std::string name;
    std::vector<std::pair<std::string, std::string>> entries;
};
using Profile = std::vector<Section>;

std::string g_dir;
std::string g_path;

void remove_dir() {
    unlink(g_path.c_str());
    rmdir(g_dir.c_str());
}

Profile snapshot(const ProfileHandle* handle) {
    Profile out;
    for (const ProfileSection* s = handle->sections; s; s = s->next) {
        FUZZ_CHECK(strnlen(s->name, KEMAIL_PROFILE_NAME_SIZE) < KEMAIL_PROFILE_NAME_SIZE);
        Section section{s->name, {}};
        for (const ProfileEntry* e = s->entries; e; e = e->next) {
            FUZZ_CHECK(strnlen(e->key, KEMAIL_PROFILE_NAME_SIZE) < KEMAIL_PROFILE_NAME_SIZE);
            FUZZ_CHECK(e->value != nullptr);
            section.entries.emplace_back(e->key, e->value);
        }
        out.push_back(std::move(section));
    }
    return out;
}

const std::string* find(const Profile& profile, const std::string& section,
                        const std::string& key) {
    for (const Section& s : profile) {
        if (s.name != section) continue;
        for (const auto& entry : s.entries) {
            if (entry.first == key) return &entry.second;
        }
        return nullptr;  // only the first section of a name is searched
    }
    return nullptr;
}

// What Com_WritePrivateProfileString does to a profile with a key and value.
void model_write(Profile* profile, const std::string& section, const std::string& key,
                 const std::string& value) {
    for (Section& s : *profile) {
        if (s.name != section) continue;
        for (auto& entry : s.entries) {
            if (entry.first == key) {
                entry.second = value;
                return;
            }
        }
        s.entries.emplace_back(key, value);
        return;
    }
    profile->push_back(Section{section, {{key, value}}});
}

Profile without_empty_sections(const Profile& profile) {
    Profile out;
    for (const Section& s : profile) {
        if (!s.entries.empty()) out.push_back(s);
    }
    return out;
}

bool same(const Profile& a, const Profile& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].name != b[i].name || a[i].entries != b[i].entries) return false;
    }
    return true;
}

void write_file(const uint8_t* data, size_t size) {
    const int fd = open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
    FUZZ_CHECK(close(fd) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kemail-fuzz-profile.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    FUZZ_CHECK(mkdtemp(name.data()) != nullptr);
    g_dir = name.data();
    g_path = g_dir + "/profile.ini";
    atexit(remove_dir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    // Byte 0: line ends of the rewrite (bit 0) and the look-up buffer size.
    const unsigned int flags = (data[0] & 1) ? 1u | KEMAIL_PROFILE_CRLF : 1u;
    const unsigned int out_size = data[0] >> 1;
    write_file(data + 1, size - 1);

    int err = 0;
    ProfileHandle* handle = Com_OpenPrivateProfile2(g_path.c_str(), flags, &err);
    FUZZ_CHECK(handle != nullptr);
    Profile model = snapshot(handle);

    // Every name the file declared is looked up, with a buffer cut short.
    std::unique_ptr<char[]> out(new char[out_size + 1]);
    for (const Section& s : model) {
        for (const auto& entry : s.entries) {
            // A key of a later section of the same name is not found: the
            // default comes back.
            static const std::string kDefault = "(none)";
            const std::string* found = find(model, s.name, entry.first);
            const std::string* value = found ? found : &kDefault;
            out[out_size] = '#';
            const int n = Com_GetPrivateProfileString(handle, s.name.c_str(), entry.first.c_str(),
                                                      kDefault.c_str(), out.get(), out_size);
            const size_t expected =
                out_size == 0 ? 0 : std::min<size_t>(value->size(), out_size - 1);
            FUZZ_CHECK(n == static_cast<int>(expected));
            if (out_size > 0)
                FUZZ_CHECK(value->compare(0, expected, out.get()) == 0 && out[expected] == '\0');
            FUZZ_CHECK(out[out_size] == '#');
            Com_GetPrivateProfileInt(handle, s.name.c_str(), entry.first.c_str(), -1, nullptr);
            Com_GetPrivateProfileIntHex(handle, s.name.c_str(), entry.first.c_str(), 7u, nullptr);
        }
    }

    // One change, so that the close writes the file back.
    const std::string section = model.empty() ? "KEMAIL" : model.back().name;
    FUZZ_CHECK(Com_WritePrivateProfileString(handle, section.c_str(), "CONTENT_DISPOSITION", "1") ==
               1);
    model_write(&model, section, "CONTENT_DISPOSITION", "1");
    FUZZ_CHECK(same(snapshot(handle), model));
    FUZZ_CHECK(Com_ClosePrivateProfile2(handle, g_path.c_str(), &err) == 0);

    handle = Com_OpenPrivateProfile2(g_path.c_str(), 0, &err);
    FUZZ_CHECK(handle != nullptr);
    FUZZ_CHECK(same(snapshot(handle), without_empty_sections(model)));
    FUZZ_CHECK(Com_ClosePrivateProfile2(handle, g_path.c_str(), &err) == 0);
    return 0;
}
