#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <optional>

// The command line of each of our programs, on Qt's parser, with the two options that every one
// of them answers: --help prints the usage on standard output and --version prints
// "<program> <application version>", both ending the program with status 0. They are answered
// from the arguments alone: a program that parses before it creates its application object,
// opens a display or a bus, or picks a GPU does none of that for them.
class CommandLine {
public:
    // program: the name that the usage line and the version show ("turnelo-scene",
    // "turnelo render"); description: the sentence under the usage line.
    CommandLine(const QString &program, const QString &description);

    // The program's own options and positional arguments go here before parse().
    QCommandLineParser parser;

    // Parses `arguments` (the program's path first). Returns the status to exit with when the
    // program should end now: 0 once the help or the version is printed, 1 once an unknown
    // option or a missing value is reported on standard error. Otherwise none, and `parser`
    // holds the line. With `answerOnly`, only --help and --version are acted on: words the
    // parser does not know are left for a later parse, after an application object has taken
    // its own options (-display, -session, …) out of the line.
    std::optional<int> parse(const QStringList &arguments, bool answerOnly = false);

    // What --help prints.
    QString helpText() const;

    // The arguments as Qt reads them, for parsing before any application object exists.
    static QStringList arguments(int argc, char **argv);

private:
    QString program;
    QCommandLineOption help;
    QCommandLineOption version;
};
