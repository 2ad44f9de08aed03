#pragma once

#include "platform/AlertPresenter.h"

#include <functional>
#include <QList>
#include <QStringList>

// Answers from `answers` (the first button, box unticked, once they run out) and keeps every alert shown.
class ScriptedAlertPresenter : public AlertPresenter {
public:
    AlertResponse runModal(const Alert& alert) override
    {
        shown << alert;
        if (onShow)
            onShow(alert);
        return answers.isEmpty() ? AlertResponse{} : answers.takeFirst();
    }
    QStringList messages() const
    {
        QStringList texts;
        for (const Alert& alert : shown)
            texts << alert.messageText;
        return texts;
    }

    QList<AlertResponse> answers;
    // Acts while the alert is up, as a user or the system could meanwhile.
    std::function<void(const Alert&)> onShow;
    QList<Alert> shown;
};
