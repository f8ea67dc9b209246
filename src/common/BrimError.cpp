#include "common/BrimError.h"

#include <cstring>

namespace brim {

BrimError posixError(const std::string& text, int errnoValue) {
    return BrimError(text + ": " + std::strerror(errnoValue));
}

} // namespace brim
