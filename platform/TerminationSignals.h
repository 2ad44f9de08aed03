#pragma once

#include <memory>
#include <QObject>

class QSocketNotifier;

// SIGTERM and SIGINT, turned into a signal on the main thread's event loop (through a self-pipe: the
// handler itself only writes one byte), so that quitting that way passes the same guard as the menu.
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

    bool install();

signals:
    void terminationRequested(int signalNumber);

private:
    void readSignal();

    std::unique_ptr<QSocketNotifier> m_notifier;
};
