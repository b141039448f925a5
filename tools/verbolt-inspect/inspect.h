#pragma once

#include "model/json.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

class ProviderStore;
struct HttpRequest;

// The verbolt-inspect command line: each subcommand runs one piece of the real core on stdin
// and prints JSON. Subcommands register themselves from their own files.
namespace Inspect {

// args: the arguments after the subcommand's name. Returns the process exit code.
using Command = std::function<int(const QStringList &args)>;

bool registerCommand(const QString &name, Command command);
// Decoders for `decode <kind>`: they read stdin and print the re-encoded record.
bool registerDecoder(const QString &kind, Command command);

QByteArray readStdin();
// Parses stdin as JSON; not JSON at all is bad usage: prints to stderr and exits 2.
Json::Document readStdinJson();

// Writes bytes plus one line feed to stdout.
void printLine(const QByteArray &bytes);
// Writes bytes as they are.
void printRaw(const QByteArray &bytes);
// {"error": text} on stdout; returns 1.
int fail(const QString &text);
// A one-line message on stderr; returns 2.
int usage(const QString &message);

// The value of --name in args, or nothing; a flag without a value is bad usage (exits 2).
std::optional<QString> option(const QStringList &args, const QString &name);
// Fails with usage() unless every argument is one of the named flags with a value.
bool checkOptions(const QStringList &args, const QStringList &allowed);

// Gives providers the desktop keyring, as the program does, and waits for the keys kept there: a
// tool cannot fill them in later. Without a keyring the keys in the settings file serve.
void useKeyring(ProviderStore &providers);

// The request description shared by `request` and `models-request`.
QByteArray describeRequest(const HttpRequest &request);

} // namespace Inspect

#define VERBOLT_INSPECT_CONCAT2(a, b) a##b
#define VERBOLT_INSPECT_CONCAT(a, b) VERBOLT_INSPECT_CONCAT2(a, b)
#define VERBOLT_INSPECT_COMMAND(name, fn)                                                                              \
    static const bool VERBOLT_INSPECT_CONCAT(registered_, __LINE__) = Inspect::registerCommand(QStringLiteral(name), fn)
#define VERBOLT_INSPECT_DECODER(kind, fn)                                                                              \
    static const bool VERBOLT_INSPECT_CONCAT(decoder_, __LINE__) = Inspect::registerDecoder(QStringLiteral(kind), fn)
