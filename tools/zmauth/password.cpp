#include "password.h"

#include <csignal>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

namespace {

struct termios g_saved;
volatile sig_atomic_t g_echoOff = 0;

void restoreEcho()
{
    if (g_echoOff) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved);
        g_echoOff = 0;
    }
}

// An interrupted prompt must not leave the user's terminal without echo.
void onSignal(int sig)
{
    restoreEcho();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

QByteArray readLine()
{
    QByteArray line;
    int c;
    while ((c = std::getchar()) != EOF && c != '\n')
        line.append(static_cast<char>(c));
    if (line.endsWith('\r'))
        line.chop(1);
    return line;
}

} // namespace

QByteArray readPassword(const char *prompt)
{
    if (!isatty(STDIN_FILENO))
        return readLine();

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction oldInt, oldTerm, oldHup, oldQuit;
    sigaction(SIGINT, &action, &oldInt);
    sigaction(SIGTERM, &action, &oldTerm);
    sigaction(SIGHUP, &action, &oldHup);
    sigaction(SIGQUIT, &action, &oldQuit);

    if (tcgetattr(STDIN_FILENO, &g_saved) == 0) {
        struct termios quiet = g_saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0)
            g_echoOff = 1;
    }

    // Echo goes off before the prompt shows, so nothing typed after the
    // prompt is ever echoed.
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    const QByteArray line = readLine();

    restoreEcho();
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGTERM, &oldTerm, nullptr);
    sigaction(SIGHUP, &oldHup, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    return line;
}
