#include "AppsUsingiCloud.h"

#include <QDir>

namespace {

QStringList containerIdentifiers(const QString& folder)
{
    QStringList containers;
    const QStringList names = QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& name : names) {
        if (!name.startsWith(QLatin1Char('.')))
            containers << QString(name).replace(QLatin1Char('~'), QLatin1Char('.'));
    }
    return containers;
}

bool usesContainer(const RunningApplication& application, const QString& container)
{
    const std::optional<QString>& identifier = application.bundleIdentifier;
    return identifier && container.contains(*identifier) && *identifier != QLatin1String("com.apple.finder");
}

} // namespace

QList<RunningApplication> AppsUsingiCloud::detect(const RunningApplications& running,
                                                  const std::optional<QString>& mobileDocumentsDirectory)
{
    const QList<RunningApplication> applications = running.runningApplications();
    if (!mobileDocumentsDirectory)
        return {};
    QList<RunningApplication> found;
    for (const QString& container : containerIdentifiers(*mobileDocumentsDirectory)) {
        for (const RunningApplication& application : applications) {
            if (usesContainer(application, container))
                found << application;
        }
    }
    return found;
}
