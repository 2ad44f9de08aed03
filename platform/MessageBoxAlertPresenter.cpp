#include "MessageBoxAlertPresenter.h"

#include <QApplication>
#include <QCheckBox>
#include <QMessageBox>
#include <QPushButton>

namespace {

QMessageBox::Icon iconFor(Alert::Style style)
{
    switch (style) {
    case Alert::Style::Critical:
        return QMessageBox::Critical;
    case Alert::Style::Informational:
        return QMessageBox::Information;
    case Alert::Style::Warning:
        break;
    }
    return QMessageBox::Warning;
}

} // namespace

AlertResponse MessageBoxAlertPresenter::runModal(const Alert& alert)
{
    QMessageBox box(QApplication::activeWindow());
    box.setWindowModality(Qt::ApplicationModal);
    box.setIcon(iconFor(alert.style));
    box.setWindowTitle(QApplication::applicationName());
    box.setText(alert.messageText);
    box.setInformativeText(alert.informativeText);
    if (!alert.detailedText.isEmpty())
        box.setDetailedText(alert.detailedText);
    QList<QPushButton*> buttons;
    for (const Alert::Button& button : alert.buttons) {
        // Roles only place the buttons; the answer is the button's position in the alert.
        QPushButton* added = box.addButton(button.title, buttons.isEmpty() ? QMessageBox::AcceptRole
                                                                           : QMessageBox::RejectRole);
        if (button.keyEquivalent == QLatin1String("\r"))
            box.setDefaultButton(added);
        else if (button.keyEquivalent == QLatin1String("\033"))
            box.setEscapeButton(added);
        buttons << added;
    }
    if (alert.showsSuppressionButton)
        box.setCheckBox(new QCheckBox(alert.suppressionButtonTitle));
    box.exec();
    AlertResponse response;
    const qsizetype index = buttons.indexOf(qobject_cast<QPushButton*>(box.clickedButton()));
    // Closing the box without a button counts as its escape button, else as the last one.
    response.code = AlertResponse::kFirstButton +
                    static_cast<int>(
                        index >= 0 ? index : buttons.indexOf(qobject_cast<QPushButton*>(box.escapeButton())));
    if (index < 0 && !box.escapeButton())
        response.code = AlertResponse::kFirstButton + static_cast<int>(buttons.size()) - 1;
    response.suppressionChecked = box.checkBox() && box.checkBox()->isChecked();
    return response;
}
