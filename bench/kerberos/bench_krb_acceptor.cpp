// Acceptor cost: the same fresh initiator tokens accepted by
// zmkrb::Service::acceptNew and by a minimal loop written straight on
// gss_accept_sec_context, in the same process, with the same keytab and the
// same replay-cache setting (none, so that both can take the same tokens).
//
//   bench_krb_acceptor REALM_DIR [tokens] [rounds]
#include <zmkerberos.h>

#include <QCoreApplication>

#include "tokens.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        benchkrb::die("usage: bench_krb_acceptor REALM_DIR [tokens] [rounds]");
    const int count = argc > 2 ? std::atoi(argv[2]) : 2000;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    const benchkrb::AcceptorRun run = benchkrb::prepareAcceptorRun(argv[1], count);
    const std::vector<zmkrb::token_t> &tokens = run.tokens;
    const std::string &user = run.user;

    zmkrb::Service service;
    service.setKTFile(run.keytab);

    using Clock = std::chrono::steady_clock;
    std::vector<double> lib, raw;
    for (int round = 0; round < rounds; ++round) {
        // Alternate which goes first so that warm-up favours neither.
        for (int pass = 0; pass < 2; ++pass) {
            const bool libraryPass = (pass == 0) == (round % 2 == 0);
            int ok = 0;
            const auto start = Clock::now();
            for (const zmkrb::token_t &token : tokens) {
                const zmkrb::Result r = libraryPass ? service.acceptNew("bench-peer", token)
                                                            : benchkrb::rawAccept(token, false);
                ok += r.status == 1 && r.user == user;
            }
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            if (ok != count)
                benchkrb::die("a token was not accepted");
            (libraryPass ? lib : raw).push_back(seconds);
        }
    }
    const double libMedian = median(lib), rawMedian = median(raw);
    std::printf("acceptor: %d tokens x %d rounds, replay cache none\n", count, rounds);
    std::printf("  Service::acceptNew          median %.3f s  %.1f us/token  %.0f tokens/s\n", libMedian,
                libMedian / count * 1e6, count / libMedian);
    std::printf("  raw gss_accept_sec_context  median %.3f s  %.1f us/token  %.0f tokens/s\n", rawMedian,
                rawMedian / count * 1e6, count / rawMedian);
    std::printf("  ratio acceptNew / raw       %.3f\n", libMedian / rawMedian);
    return 0;
}
