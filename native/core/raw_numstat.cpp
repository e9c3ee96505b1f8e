#include "core/raw_numstat.hpp"

namespace gu::core {

std::vector<FileRecord> collect_file_changes(std::string_view output) {
    TokenStream stream(output);
    std::vector<FileRecord> records;
    FileCollector<char>().collect(stream, output.data(), records);
    return records;
}

}  // namespace gu::core
