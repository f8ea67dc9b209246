#include "entry/Branding.h"

#include "entry/BuildInfo.h"

#include <filesystem>
#include <system_error>

namespace brim::Branding {

std::string version() { return BRIM_VERSION; }
std::string build() { return BRIM_BUILD; }

std::string versionDescription() {
    std::string text = version() + " (" + build();
    for (const char* part : {BRIM_COMMIT, BRIM_BUILD_DATE}) {
        if (*part != '\0') text += std::string(" · ") + part;
    }
    return text + ")";
}

std::string executablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : path.string();
}

} // namespace brim::Branding
