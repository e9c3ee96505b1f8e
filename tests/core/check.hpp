// The core's unit tests: CHECK reports a condition that does not hold and
// goes on; main() runs every test below and fails when any check did.
#pragma once

#include <cstdio>

namespace check {
inline int failures = 0;
}  // namespace check

#define CHECK(expr) \
    ((expr) ? (void)0 : (void)(++check::failures, std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #expr)))

void test_spans_at_the_edges_of_int64();
void test_hunk_bodies_skipped_by_their_counts();
void test_token_stream();
void test_file_records_in_every_unit_width();
void test_commit_log();
void test_utf8_shapes();
void test_spawn();
