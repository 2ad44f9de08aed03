#pragma once

#include "AlertPresenter.h"

// Alerts as application-modal message boxes: buttons in the alert's order, the "\r" button as the
// default (Return) and the "\033" one as the escape button, the suppression choice as a check box.
class MessageBoxAlertPresenter final : public AlertPresenter {
public:
    AlertResponse runModal(const Alert& alert) override;
};
