// Acceptor memory per token: the acceptor keeps every context it accepts
// (it never deletes one), so a long-running server grows with each token.
// Measured as the peak resident set after FIRST accepted tokens and after
// TOKENS, the difference divided by the tokens in between. All tokens are
// made before the first reading, so that they weigh on both readings alike.
//
//   bench_krb_acceptor_memory REALM_DIR library|reference [tokens] [first]
//
// library    zmkrb::Service::acceptNew
// reference  gss_accept_sec_context with the context deleted after each
//            token: what an acceptor that keeps nothing costs
//
// Prints one line: mode, tokens, first, peak KiB after first, peak KiB after
// all, bytes per token.
#include <zmkerberos.h>

#include <QCoreApplication>

#include "tokens.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

// VmHWM of this process, in KiB.
long peakKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmHWM:") == 0)
            return std::atol(line.c_str() + 6);
    }
    benchkrb::die("no VmHWM in /proc/self/status");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 3 || (std::strcmp(argv[2], "library") != 0 && std::strcmp(argv[2], "reference") != 0))
        benchkrb::die("usage: bench_krb_acceptor_memory REALM_DIR library|reference [tokens] [first]");
    const bool library = std::strcmp(argv[2], "library") == 0;
    const int count = argc > 3 ? std::atoi(argv[3]) : 10000;
    const int first = argc > 4 ? std::atoi(argv[4]) : 100;
    if (first < 1 || count <= first)
        benchkrb::die("tokens must be more than first, and first at least 1");

    // No replay cache, as in the speed benchmark: the same tokens serve both
    // kinds, and a replay cache lives in a file, not in the process.
    const benchkrb::AcceptorRun run = benchkrb::prepareAcceptorRun(argv[1], count);
    const std::vector<zmkrb::token_t> &tokens = run.tokens;

    zmkrb::Service service;
    service.setKTFile(run.keytab);
    long peakFirst = 0;
    for (int i = 0; i < count; ++i) {
        const zmkrb::Result r =
            library ? service.acceptNew("bench-peer", tokens[size_t(i)]) : benchkrb::rawAccept(tokens[size_t(i)], true);
        if (r.status != 1 || r.user != run.user)
            benchkrb::die("a token was not accepted");
        if (i + 1 == first)
            peakFirst = peakKiB();
    }
    const long peakAll = peakKiB();
    std::printf("%s %d %d %ld %ld %.0f\n", library ? "library" : "reference", count, first, peakFirst, peakAll,
                double(peakAll - peakFirst) * 1024.0 / (count - first));
    return 0;
}
