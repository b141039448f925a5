#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What a save dialog shows: its title, a message line under it, the suggested file name and
// the name filters ("Markdown (*.md)").
struct SaveDialogRequest
{
    QString title;
    QString message;
    QString suggestedName;
    QStringList nameFilters;
};

// What an open dialog shows. Exactly one existing file can be chosen, never a folder.
struct OpenDialogRequest
{
    QString title;
    QString message; // may be empty
    QStringList nameFilters;
};

// The modal save and open dialogs the exports and the import run. The windows pass a Qt
// implementation; tests pass a scripted one. Both calls block until the dialog closes and
// return the chosen path, or nothing when the user cancelled.
class FileDialogs
{
public:
    virtual ~FileDialogs() = default;
    virtual std::optional<QString> saveFileName(const SaveDialogRequest &request) = 0;
    virtual std::optional<QString> openFileName(const OpenDialogRequest &request) = 0;
};
