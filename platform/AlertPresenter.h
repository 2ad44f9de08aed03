#pragma once

#include <QList>
#include <QString>

// One modal question or notice, described rather than built, so a test can answer it.
struct Alert {
    enum class Style { Warning = 0, Informational = 1, Critical = 2 };
    struct Button {
        QString title;
        QString keyEquivalent; // "\r" answers to Return, "\033" to Escape
    };

    Style style = Style::Warning;
    QString messageText;
    QString informativeText;
    // Shown under a Details button, for a list too long for the alert itself; empty: no button.
    QString detailedText;
    QList<Button> buttons;
    bool showsSuppressionButton = false;
    QString suppressionButtonTitle;
};

struct AlertResponse {
    static constexpr int kFirstButton = 1000;
    int code = kFirstButton; // 1000 for the first button, 1001 for the second, ...
    bool suppressionChecked = false;
};

// Runs alerts application-modally.
class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    virtual AlertResponse runModal(const Alert& alert) = 0;
};
