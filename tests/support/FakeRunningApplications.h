#pragma once

#include "platform/RunningApplications.h"

#include <algorithm>
#include <optional>
#include <QList>

// Running applications as a test sets them up; remembers which it was asked to activate.
class FakeRunningApplications : public RunningApplications {
public:
    void add(pid_t pid, std::optional<QString> bundleIdentifier, const QString& name = QStringLiteral("App"))
    {
        m_applications.append(RunningApplication{pid, std::move(bundleIdentifier), name, {}, {}});
    }
    void remove(pid_t pid)
    {
        m_applications.removeIf(
            [pid](const RunningApplication& app) { return app.processIdentifier == pid; });
    }
    QList<RunningApplication> runningApplications() const override { return m_applications; }
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) const override
    {
        const auto found = std::find_if(m_applications.begin(), m_applications.end(),
                                        [pid](const auto& app) { return app.processIdentifier == pid; });
        return found == m_applications.end() ? std::nullopt : std::optional(*found);
    }
    bool activate(pid_t pid) override
    {
        activated << pid;
        return true;
    }

    QList<pid_t> activated;

private:
    QList<RunningApplication> m_applications;
};
