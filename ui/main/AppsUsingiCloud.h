#pragma once

#include "platform/RunningApplications.h"

#include <optional>
#include <QString>

// Which running applications use the iCloud folder: for each container folder (its name with every "~"
// read as "."; names beginning with "." skipped), in listing order, each running application, in the
// platform's order, whose bundle identifier occurs anywhere inside the container identifier. A plain,
// case-sensitive substring test, kept as it is; the file manager ("com.apple.finder") never counts.
// An application matching two containers is listed twice, on purpose.
class AppsUsingiCloud {
public:
    AppsUsingiCloud() = delete;
    static QList<RunningApplication> detect(const RunningApplications& running,
                                            const std::optional<QString>& mobileDocumentsDirectory);
};
