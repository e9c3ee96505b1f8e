#include <cstdio>
#include <initializer_list>

#include "check.hpp"

int main() {
    for (void (*test)() : {test_spans_at_the_edges_of_int64, test_hunk_bodies_skipped_by_their_counts,
                           test_token_stream, test_file_records_in_every_unit_width, test_commit_log, test_utf8_shapes})
        test();
#ifndef _WIN32
    test_spawn();  // the spawner is POSIX only
#endif
    std::printf("%d checks failed\n", check::failures);
    return check::failures == 0 ? 0 : 1;
}
