#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// The rows of a data-driven test kept in a file: one JSON array of strings per line, the row's
// name first; a JSON null reads as a null QString. Lines that do not start with "[" are notes
// for the reader. A line that does not parse becomes a row named after its line number with no
// cells, so that the test using it fails instead of losing the row.
QList<QStringList> readRowFile(const QString &path);

// Rows kept as plain text, for cells that are JSON themselves: each line holding " | " is a row,
// split there; other lines are notes for the reader.
QList<QStringList> readTextRowFile(const QString &path);
