#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM, SIGHUP and SIGINT (a shutdown, a logout, Ctrl+C in a terminal) into a
// quitRequested() on the main thread, so the program ends through its normal quit: every running
// reply is saved first. The signal handler itself only writes one byte to a socket pair that the
// event loop watches. Each handler is a one-shot: a second signal of the same kind while quitting
// ends the program the default way, so a stuck quit can still be interrupted.
//
// One instance at a time; the destructor puts the default actions back. If the socket pair cannot
// be made, no handler is installed and isInstalled() is false.
class QuitSignals final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(QuitSignals)

public:
    explicit QuitSignals(QObject *parent = nullptr);
    ~QuitSignals() override;

    bool isInstalled() const { return m_notifier != nullptr; }

signals:
    // Emitted on the main thread for each signal received, with its number.
    void quitRequested(int signalNumber);

private:
    void handleReadable();

    QSocketNotifier *m_notifier = nullptr;
};
