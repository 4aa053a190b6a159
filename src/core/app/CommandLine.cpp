#include "core/app/CommandLine.h"

#include "core/app/AppIdentity.h"

#include <QCoreApplication>
#include <cstdio>

CommandLine::CommandLine(const QString &program, const QString &description)
    : program(program)
    , help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Displays this help."))
    , version({QStringLiteral("v"), QStringLiteral("version")}, QStringLiteral("Displays the version."))
{
    // A word after one dash is one name, as in Qt's own options (-reverse, -session), never a
    // bundle of letters that could read as -v or -h.
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.setApplicationDescription(description);
    parser.addOption(help);
    parser.addOption(version);
}

std::optional<int> CommandLine::parse(const QStringList &arguments, bool answerOnly)
{
    const bool parsed = parser.parse(arguments);
    // The parser reads the whole line even past a word it does not know, so these still count.
    if (parser.isSet(help)) {
        std::fputs(qPrintable(helpText()), stdout);
        return 0;
    }
    if (parser.isSet(version)) {
        std::printf("%s %s\n", qPrintable(program), qPrintable(AppIdentity::version()));
        return 0;
    }
    if (!parsed && !answerOnly) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", qPrintable(program), qPrintable(parser.errorText()),
                     qPrintable(program));
        return 1;
    }
    return std::nullopt;
}

QString CommandLine::helpText() const
{
    // Qt names the program by the path it was started with, or by a placeholder when no
    // application object exists yet; the usage line shows the name people type instead.
    QString text = parser.helpText();
    const QString shown = QCoreApplication::instance() && !QCoreApplication::arguments().isEmpty()
                              ? QCoreApplication::arguments().constFirst()
                              : QStringLiteral("<executable_name>");
    const qsizetype at = text.indexOf(shown);
    if (at >= 0) text.replace(at, shown.size(), program);
    return text;
}

QStringList CommandLine::arguments(int argc, char **argv)
{
    QStringList out;
    for (int i = 0; i < argc; ++i) out << QString::fromLocal8Bit(argv[i]);
    return out;
}
