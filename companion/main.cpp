// mensurix-sim: a stand-in for the companion surveying application, for trying the plug-in and
// for its tests. See --help.

#include "MensurixSim.h"

#include <QCommandLineParser>
#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("mensurix-sim"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "A stand-in for the companion application: listens on 127.0.0.1:6601 for the Lumivert "
        "plug-in, prints each message received (decoded, raw, and whether it is the companion's "
        "template to the byte), and sends frames, each ended by the byte 0x04, from a script or "
        "from lines typed here.\n\n"
        "Script and typed lines:\n"
        "  {...}        a frame, sent as written (one JSON object per line)\n"
        "  # ...        a comment\n"
        "  !wait MS     pause the script for MS milliseconds\n"
        "  !split N     send the following frames in writes of N bytes (0: whole)\n"
        "  !raw TEXT    send TEXT as it is, with no 0x04 (\\x04, \\n and \\\\ are understood)\n"
        "  !close       close the connection; the next one is accepted\n"
        "  !quit        stop\n\n"
        "The script starts when the plug-in connects. Each sight placed (\"coordonnees\") is\n"
        "answered with a CVisee frame giving it the next free number (--no-numbering: not):\n"
        "above every sight of the script and every one numbered by an earlier run of it (kept\n"
        "in the user's cache), so that a restarted stand-in never renumbers a sight on screen."));
    parser.addHelpOption();
    QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Port to listen on."),
                            QStringLiteral("port"), QStringLiteral("6601"));
    QCommandLineOption script(QStringLiteral("script"),
                              QStringLiteral("Lines to run once the plug-in connects."),
                              QStringLiteral("file"));
    QCommandLineOption log(QStringLiteral("log"),
                           QStringLiteral("Also write everything printed to this file."),
                           QStringLiteral("file"));
    QCommandLineOption noInput(QStringLiteral("no-input"),
                               QStringLiteral("Do not read lines from standard input."));
    QCommandLineOption quitAfter(
        QStringLiteral("quit-after-script"),
        QStringLiteral("Stop once the script has run and the plug-in has disconnected."));
    QCommandLineOption noNumbering(
        QStringLiteral("no-numbering"),
        QStringLiteral("Do not answer each sight placed with a CVisee frame numbering it."));
    parser.addOptions({port, script, log, noInput, quitAfter, noNumbering});
    parser.process(app);

    MensurixSim::Options options;
    bool ok = false;
    options.port = quint16(parser.value(port).toUInt(&ok));
    if (!ok) {
        std::fprintf(stderr, "mensurix-sim: bad port '%s'\n", qPrintable(parser.value(port)));
        return 2;
    }
    options.script = parser.value(script);
    options.log = parser.value(log);
    options.readStdin = !parser.isSet(noInput);
    options.quitAfterScript = parser.isSet(quitAfter);
    options.numberSights = !parser.isSet(noNumbering);
    MensurixSim sim(options);
    if (!sim.start())
        return 1;
    return app.exec();
}
