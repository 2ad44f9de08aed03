#include "ProgressPrinter.h"

#include "platform/ByteCountFormatter.h"

#include <algorithm>
#include <QLocale>
#include <QString>

namespace {

constexpr auto kTerminalInterval = std::chrono::milliseconds(100);
constexpr auto kPlainInterval = std::chrono::seconds(5);
constexpr int kBarWidth = 24;

QString timeLeft(std::chrono::steady_clock::duration elapsed, std::uint64_t bytes, std::uint64_t totalBytes)
{
    if (bytes == 0 || totalBytes <= bytes)
        return QString();
    const double seconds = std::chrono::duration<double>(elapsed).count() *
                           static_cast<double>(totalBytes - bytes) / static_cast<double>(bytes);
    const auto whole = static_cast<long long>(seconds + 0.5);
    return QStringLiteral(", %1:%2 left").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

ProgressPrinter::ProgressPrinter(std::FILE* out, bool terminal)
    : m_out(out)
    , m_terminal(terminal)
{
}

void ProgressPrinter::update(std::int64_t files, std::int64_t totalFiles, std::uint64_t bytes,
                             std::uint64_t totalBytes)
{
    m_files = files;
    m_totalFiles = totalFiles;
    m_bytes = bytes;
    m_totalBytes = totalBytes;
    m_pending = true;
    const Clock::time_point now = Clock::now();
    if (!m_shown || now - m_lastShown >= (m_terminal ? Clock::duration(kTerminalInterval) : kPlainInterval))
        show(now);
}

void ProgressPrinter::show(Clock::time_point now)
{
    m_lastShown = now;
    m_pending = false;
    m_shown = true;
    const QLocale locale;
    const QString counts = QStringLiteral("%1 of %2 files, %3 of %4%5")
                               .arg(locale.toString(static_cast<qlonglong>(m_files)),
                                    locale.toString(static_cast<qlonglong>(m_totalFiles)),
                                    ByteCountFormatter::stringFromByteCount(m_bytes),
                                    ByteCountFormatter::stringFromByteCount(m_totalBytes),
                                    timeLeft(now - m_started, m_bytes, m_totalBytes));
    if (!m_terminal) {
        std::fprintf(m_out, "%s\n", qPrintable(counts));
        std::fflush(m_out);
        return;
    }
    const double fraction =
        m_totalBytes == 0 ? 0.0
                          : std::min(1.0, static_cast<double>(m_bytes) / static_cast<double>(m_totalBytes));
    const int filled = static_cast<int>(fraction * kBarWidth);
    const QString bar = QString(filled, QLatin1Char('#')) + QString(kBarWidth - filled, QLatin1Char('.'));
    // Cleared to the end of the line: the text may be shorter than the one before.
    std::fprintf(m_out, "\r[%s] %3d%% %s\x1b[K", qPrintable(bar), static_cast<int>(fraction * 100),
                 qPrintable(counts));
    std::fflush(m_out);
}

void ProgressPrinter::finish()
{
    if (m_pending)
        show(Clock::now());
    if (m_terminal && m_shown)
        std::fprintf(m_out, "\n");
    m_shown = false;
}
