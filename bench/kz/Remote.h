// bench_kz --remote: reading the members of a container on s3rver through
// the cloud reader, against per-object GETs of the same files from the same
// server (run under tests/peers/run_with_peers.py --with s3).
#pragma once

#include <QString>

#include <vector>

namespace kzbench {

// The files, the container made of them, runs for the median. Prints the
// figures and the ratio; non-zero when the peer is missing or a read fails.
int remoteBenchmark(std::vector<QString> const& files, QString const& container, int runs);

} // namespace kzbench
