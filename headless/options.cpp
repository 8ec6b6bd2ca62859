#include "options.h"

#include "exitcode.h"

#include <QCommandLineParser>

#include <cmath>
#include <limits>

namespace {

struct KnownOptions {
    const QCommandLineOption listen{"listen", "Switch the TCP server on at PORT (0: any free port).", "PORT"};
    const QCommandLineOption plugAndPlay{"plug-and-play",
                                         "Give a new node to each program that matches none."};
    const QCommandLineOption identifyBy{
        "identify-by",
        "Let programs identify themselves by \"name\" or by \"address\" (default: as in the file).",
        "name|address"};
    const QCommandLineOption capture{"capture",
                                     "Switch the capture on and write it to FILE (pcap) at the end.", "FILE"};
    const QCommandLineOption seed{
        "seed", "Start the random numbers at N: the same inputs then give the same losses.", "N"};
    const QCommandLineOption duration{"duration", "End after SECONDS.", "SECONDS"};
    const QCommandLineOption frames{"frames", "End when N frames have left their links.", "N"};
    const QCommandLineOption waitFor{
        "wait-for", "Start counting time and frames once all these nodes are attached.", "NAME[,NAME...]"};
    const QCommandLineOption waitTimeout{
        "wait-timeout", "Give up waiting for these nodes after SECONDS (default: 30).", "SECONDS"};
    const QCommandLineOption report{"report", "Write what happened to FILE (JSON) at the end.", "FILE"};
    const QCommandLineOption debugOutput{"debug-output", "Write a \"*\" for each corrupted bit."};
    const QCommandLineOption help{{"h", "help"}, "Print this help."};
    const QCommandLineOption version{{"v", "version"}, "Print the version."};
};

QString description()
{
    const auto line = [](ExitCode code, const char* meaning) {
        return QStringLiteral("\n  %1  %2").arg(static_cast<int>(code)).arg(QLatin1String(meaning));
    };
    return "Simulates a network of point-to-point links without a window. Prints \"listening on port N\"\n"
           "when programs can attach. Ends at the first of its end conditions, or on SIGINT, SIGTERM or\n"
           "SIGHUP.\n"
           "\nExit codes:"
        + line(ExitCode::Success, "the run ended normally")
        + line(ExitCode::WrongOption, "an option is wrong")
        + line(ExitCode::SimulationNotLoaded, "the simulation file does not load")
        + line(ExitCode::PortNotOpened, "the port cannot be opened")
        + line(ExitCode::DumpNotWritten, "the dump of --capture cannot be written")
        + line(ExitCode::ReportNotWritten, "the report cannot be written")
        + line(ExitCode::NodesMissing, "nodes of --wait-for were not attached in time");
}

void setUp(QCommandLineParser& parser, const KnownOptions& known)
{
    parser.setApplicationDescription(description());
    parser.addOptions({known.listen, known.plugAndPlay, known.identifyBy, known.capture, known.seed,
                       known.duration, known.frames, known.waitFor, known.waitTimeout, known.report,
                       known.debugOutput, known.help, known.version});
    parser.addPositionalArgument("SIMULATION", "Load this simulation file, which is never written.",
                                 "[SIMULATION]");
}

/// Reads the values of options one by one, and remembers the first wrong one.
class ValueReader
{
public:
    explicit ValueReader(const QCommandLineParser& parser)
        : _parser(parser)
    {
    }

    QString error() const { return _error; }

    /// Reads a whole number from \a smallest to \a largest. Returns nothing when the option is not given.
    template <typename Number>
    std::optional<Number> wholeNumber(const QCommandLineOption& option, qint64 smallest, qint64 largest)
    {
        return _read<Number>(option, [=](const QString& text) -> std::optional<Number> {
            bool isNumber = false;
            const qint64 number = text.toLongLong(&isNumber);
            if (!isNumber || number < smallest || number > largest)
                return std::nullopt;
            return static_cast<Number>(number);
        });
    }

    std::optional<double> seconds(const QCommandLineOption& option)
    {
        return _read<double>(option, [](const QString& text) -> std::optional<double> {
            constexpr double longest = std::numeric_limits<int>::max() / 1000.0;  // timers count milliseconds
            bool isNumber = false;
            const double number = text.toDouble(&isNumber);
            if (!isNumber || !std::isfinite(number) || number <= 0 || number > longest)
                return std::nullopt;
            return number;
        });
    }

    std::optional<bool> isName(const QCommandLineOption& option)
    {
        return _read<bool>(option, [](const QString& text) -> std::optional<bool> {
            if (text != "name" && text != "address")
                return std::nullopt;
            return text == "name";
        });
    }

    QStringList names(const QCommandLineOption& option)
    {
        return _read<QStringList>(option,
                                  [](const QString& text) -> std::optional<QStringList> {
                                      const QStringList names = text.split(',');
                                      if (names.contains(QString()))
                                          return std::nullopt;
                                      return names;
                                  })
            .value_or(QStringList());
    }

    QString fileName(const QCommandLineOption& option)
    {
        return _read<QString>(option,
                              [](const QString& text) -> std::optional<QString> {
                                  if (text.isEmpty())
                                      return std::nullopt;
                                  return text;
                              })
            .value_or(QString());
    }

private:
    template <typename Value, typename Convert>
    std::optional<Value> _read(const QCommandLineOption& option, Convert convert)
    {
        if (!_parser.isSet(option))
            return std::nullopt;
        const QString text = _parser.value(option);
        std::optional<Value> value = convert(text);
        if (!value && _error.isEmpty())
            _error = QStringLiteral("bad value \"%1\" of option --%2").arg(text, option.names().constFirst());
        return value;
    }

    const QCommandLineParser& _parser;
    QString _error;
};

CommandLine failure(const QString& text)
{
    return {std::nullopt, text, true};
}

}  // namespace

CommandLine parseCommandLine(const QStringList& arguments)
{
    QCommandLineParser parser;
    const KnownOptions known;
    setUp(parser, known);
    if (!parser.parse(arguments))
        return failure(parser.errorText());
    if (parser.isSet(known.help))
        return {std::nullopt, parser.helpText(), false};
    if (parser.isSet(known.version))
        return {std::nullopt, QStringLiteral("lattivo-headless " LATTIVO_VERSION "\n"), false};
    if (parser.positionalArguments().size() > 1)
        return failure("there is more than one simulation file");
    if (parser.positionalArguments().contains(QString()))
        return failure("the name of the simulation file is empty");

    constexpr qint64 largestFrameCount = std::numeric_limits<qint64>::max();
    ValueReader read(parser);
    Options options;
    options.simulationFile = parser.positionalArguments().value(0);
    options.listenPort = read.wholeNumber<quint16>(known.listen, 0, std::numeric_limits<quint16>::max());
    options.plugAndPlay = parser.isSet(known.plugAndPlay);
    options.identifyByName = read.isName(known.identifyBy);
    options.captureFile = read.fileName(known.capture);
    options.seed = read.wholeNumber<quint32>(known.seed, 0, std::numeric_limits<quint32>::max());
    options.duration = read.seconds(known.duration);
    options.frames = read.wholeNumber<qint64>(known.frames, 1, largestFrameCount);
    options.waitFor = read.names(known.waitFor);
    options.waitTimeout = read.seconds(known.waitTimeout).value_or(options.waitTimeout);
    options.reportFile = read.fileName(known.report);
    options.debugOutput = parser.isSet(known.debugOutput);
    if (!read.error().isEmpty())
        return failure(read.error());
    return {options, QString(), false};
}
