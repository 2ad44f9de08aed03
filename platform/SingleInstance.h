#pragma once

#include <QObject>
#include <memory>

class QLocalServer;

// One running program per user. A second start hands over to the first (which then shows its main
// window, as on reopen) and ends, so two programs never write the same preferences.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    explicit SingleInstance(QString name, QObject* parent = nullptr);
    ~SingleInstance() override;

    // The per-user name: one instance per user, whatever the session.
    static QString defaultName();
    // True when another instance was running and has been told to reopen.
    bool handOverToRunningInstance();
    // Starts answering later starts; false when the name cannot be taken.
    bool listen();

signals:
    void reopenRequested();

private:
    QString m_name;
    std::unique_ptr<QLocalServer> m_server;
};
