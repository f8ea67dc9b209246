#include "charsets/Charsets.h"

namespace brim::Charsets {

const std::vector<Entry>& entries() {
    // The catalogue is filled in with its tables; until then it holds no rows.
    static const std::vector<Entry> rows;
    return rows;
}

} // namespace brim::Charsets
