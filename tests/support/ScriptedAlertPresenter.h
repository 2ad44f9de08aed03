#pragma once

#include "platform/AlertPresenter.h"

#include <QList>

// Answers alerts from a script (first button, unticked box, when the script runs out) and keeps every
// alert it was shown.
class ScriptedAlertPresenter : public AlertPresenter {
public:
    AlertResponse runModal(const Alert& alert) override
    {
        shown << alert;
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
    QList<Alert> shown;
};
