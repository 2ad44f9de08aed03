#pragma once

// The program needs a display. Without one, Qt would abort with a long platform-plugin message; this
// turns both the obvious case (no display variable at all) and a display that cannot be reached into one
// clear line and a non-zero exit.
class GraphicalSession {
public:
    GraphicalSession() = delete;

    static constexpr int kExitCode = 2;
    static const char* missingMessage();

    static bool seemsAvailable();
    // Between these two calls, a fatal message from Qt (the platform plugin failing to start) prints the
    // line above and exits with kExitCode instead of aborting.
    static void guardStartup();
    static void endStartupGuard();
};
