#include "inspect.h"
#include "storage/coredumps.h"

#include <QCoreApplication>
#include <QFile>
#include <QMap>

#include <cstdio>
#include <cstdlib>

namespace Inspect {

static QMap<QString, Command> &commands()
{
    static QMap<QString, Command> map;
    return map;
}

static QMap<QString, Command> &decoders()
{
    static QMap<QString, Command> map;
    return map;
}

bool registerCommand(const QString &name, Command command)
{
    commands().insert(name, std::move(command));
    return true;
}

bool registerDecoder(const QString &kind, Command command)
{
    decoders().insert(kind, std::move(command));
    return true;
}

QByteArray readStdin()
{
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return {};
    return in.readAll();
}

Json::Document readStdinJson()
{
    const QByteArray bytes = readStdin();
    QString error;
    auto doc = Json::Document::parse(bytes, &error);
    if (!doc) {
        std::fprintf(stderr, "verbolt-inspect: standard input is not JSON: %s\n", qPrintable(error));
        std::exit(2);
    }
    return *doc;
}

void printRaw(const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

void printLine(const QByteArray &bytes)
{
    printRaw(bytes + '\n');
}

int fail(const QString &text)
{
    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("error"));
    w.string(text);
    w.endObject();
    printLine(w.data());
    return 1;
}

int usage(const QString &message)
{
    std::fprintf(stderr, "verbolt-inspect: %s\n", qPrintable(message));
    return 2;
}

std::optional<QString> option(const QStringList &args, const QString &name)
{
    const qsizetype i = args.indexOf(name);
    if (i < 0)
        return std::nullopt;
    if (i + 1 >= args.size()) {
        usage(name + QStringLiteral(" needs a value"));
        std::exit(2);
    }
    return args.at(i + 1);
}

bool checkOptions(const QStringList &args, const QStringList &allowed)
{
    for (qsizetype i = 0; i < args.size(); i += 2) {
        if (!allowed.contains(args.at(i))) {
            usage(QStringLiteral("unknown argument ") + args.at(i));
            return false;
        }
        if (i + 1 >= args.size()) {
            usage(args.at(i) + QStringLiteral(" needs a value"));
            return false;
        }
    }
    return true;
}

static int decode(const QStringList &args)
{
    if (args.size() != 1 || !decoders().contains(args.first()))
        return usage(QStringLiteral("decode needs one of: ") + decoders().keys().join(u'|'));
    return decoders().value(args.first())({});
}

VERBOLT_INSPECT_COMMAND("decode", decode);

} // namespace Inspect

int main(int argc, char **argv)
{
    disableCoreDumps();
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    const auto &commands = Inspect::commands();
    if (args.isEmpty() || !commands.contains(args.first())) {
        return Inspect::usage(
            QStringLiteral("usage: verbolt-inspect <%1> [options] < input").arg(commands.keys().join(u'|')));
    }
    const QString name = args.takeFirst();
    return commands.value(name)(args);
}
