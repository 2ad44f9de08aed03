#pragma once

#include <memory>
#include <QObject>
#include <QString>

class FileDescriptor;
class QLocalServer;
class QLocalSocket;

// One running program per preferences file, so that two programs never write the same preferences.
//
// The first start takes a lock on a file beside the preferences and holds it for its whole life; the
// lock, not the socket, decides who runs, so a start with another TMPDIR or XDG_RUNTIME_DIR is still a
// second start. The holder answers later starts on a local socket in a folder only its user can reach,
// and writes that socket's path into the lock file. A later start that finds the lock taken asks the
// holder to reopen (it shows its main window) and ends. Both ends check the other's user id: another
// user's socket neither receives our request nor stops a launch.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    struct Places {
        QString lockFile;
        QString runtimeFolder;   // $XDG_RUNTIME_DIR; used only when it is ours and 0700
        QString temporaryFolder; // where a 0700 folder of ours is made otherwise
    };
    enum class Claim { Launch, HandedOver, AlreadyRunning };
    static constexpr int kAlreadyRunningExitCode = 1;

    explicit SingleInstance(Places places, QObject* parent = nullptr);
    ~SingleInstance() override;

    // Pelmora.instance.lock beside UserDefaults::standardFilePath(), $XDG_RUNTIME_DIR and QDir::tempPath().
    static Places standardPlaces();

    // Launch: the lock is ours (or cannot be had at all, where preferences cannot be written either) and
    // later starts are answered where possible. HandedOver: the holder has confirmed it will reopen.
    // AlreadyRunning: the holder did not answer; the caller must not open a second writer.
    Claim claim();
    // For a program that writes but has no window to show: takes the lock (or finds that no lock can be
    // had, as claim() does) and answers nobody; false when another program holds it.
    bool claimWithoutAnswering();
    // How long a start that finds the lock taken keeps trying: the holder may be between taking the
    // lock and listening, or on its way out.
    void setHandOverPatience(int milliseconds) { m_handOverPatienceMs = milliseconds; }

    bool isAnswering() const;
    QString socketPath() const { return m_socketPath; }
    QString alreadyRunningMessage() const;

signals:
    void reopenRequested();

private:
    enum class Lock { Taken, HeldElsewhere, Unavailable };

    Lock takeLock();
    bool handOver() const;
    QStringList handOverCandidates() const;
    QString conventionalSocketFolder() const;
    QString socketFolderForListening();
    void startAnswering();
    void recordSocketPath();
    void answer(QLocalSocket* socket);

    Places m_places;
    int m_handOverPatienceMs = 1000;
    std::unique_ptr<FileDescriptor> m_lock;
    std::unique_ptr<QLocalServer> m_server;
    QString m_socketPath;
    QString m_madeFolder; // a fresh folder made for this run, removed at its end
};
