#pragma once

#include "platform/RunningApplications.h"

// A scripted list of running applications.
class FakeRunningApplications : public RunningApplications {
public:
    void add(pid_t pid, std::optional<QString> bundleIdentifier, const QString& name = QStringLiteral("App"))
    {
        m_applications.append(RunningApplication{pid, std::move(bundleIdentifier), name, {}, {}});
    }
    void remove(pid_t pid)
    {
        m_applications.removeIf([pid](const RunningApplication& app) { return app.processIdentifier == pid; });
    }
    QList<RunningApplication> runningApplications() const override
    {
        ++queries;
        return m_applications;
    }
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) const override
    {
        for (const RunningApplication& app : m_applications) {
            if (app.processIdentifier == pid)
                return app;
        }
        return std::nullopt;
    }
    bool activate(pid_t pid) override
    {
        activated << pid;
        return true;
    }

    mutable int queries = 0;
    QList<pid_t> activated;

private:
    QList<RunningApplication> m_applications;
};
