#include "GraphicalSession.h"

#include <cstdio>
#include <cstdlib>
#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <unistd.h>

namespace {

QtMessageHandler previousHandler = nullptr;

bool isSet(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value;
}

void startupHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "%s\n", GraphicalSession::missingMessage());
        std::fflush(stderr);
        ::_exit(GraphicalSession::kExitCode);
    }
    // Qt's own chatter about the display it could not reach is replaced by the one line above.
    if (context.category && qstrncmp(context.category, "qt.qpa", 6) == 0)
        return;
    if (previousHandler)
        previousHandler(type, context, message);
    else
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

} // namespace

const char* GraphicalSession::missingMessage()
{
    return "Pelmora needs a graphical session: no display could be reached (DISPLAY or WAYLAND_DISPLAY).";
}

bool GraphicalSession::seemsAvailable()
{
    // An explicit platform (offscreen, vnc, ...) is taken at its word.
    return isSet("QT_QPA_PLATFORM") || isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
}

void GraphicalSession::guardStartup()
{
    previousHandler = qInstallMessageHandler(startupHandler);
}

void GraphicalSession::endStartupGuard()
{
    qInstallMessageHandler(previousHandler);
    previousHandler = nullptr;
}
