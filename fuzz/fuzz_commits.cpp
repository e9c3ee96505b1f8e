// The commit log read commit by commit (BasicLogStream) against a direct
// reading of the token list: every commit's head and body tokens must come
// back, each body ending before the next head.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "core/raw_numstat.hpp"

using namespace gu::core;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    struct Commit {
        std::string_view time;
        std::vector<std::string_view> body;
    };
    std::vector<Commit> want;
    TokenStream all(text);
    while (!all.done()) {
        const std::string_view tok = all.next();
        const std::string_view bare = tok.substr(std::min(tok.find_first_not_of('\n'), tok.size()));
        if (!bare.empty() && bare[0] == '\x1e')
            want.push_back({bare.substr(1), {}});
        else if (!want.empty())
            want.back().body.push_back(tok);
    }

    std::size_t n = 0;
    BasicLogStream<char> body(text);
    for (std::string_view time; body.next_commit(time); ++n) {
        if (n >= want.size() || time != want[n].time) std::abort();
        std::size_t k = 0;
        while (!body.done())
            if (k >= want[n].body.size() || body.next() != want[n].body[k++]) std::abort();
        if (k != want[n].body.size() || !body.next().empty()) std::abort();
    }
    if (n != want.size()) std::abort();
    return 0;
}
