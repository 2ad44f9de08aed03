#pragma once

#include <QSet>
#include <QTest>
#include <QWidget>

// The widgets that the Tab key gives the keyboard focus to in `window`, pressed enough times to go round.
inline QSet<QWidget*> reachedByTab(QWidget* window, int presses = 12)
{
    QSet<QWidget*> reached;
    for (int press = 0; press < presses; ++press) {
        QTest::keyClick(window->focusWidget() ? window->focusWidget() : window, Qt::Key_Tab);
        if (window->focusWidget())
            reached << window->focusWidget();
    }
    return reached;
}
