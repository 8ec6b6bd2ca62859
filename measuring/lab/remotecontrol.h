#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QSocketNotifier>

class Capture;
class MainWindow;
class Network;

/// Works the program's window by commands, between two passes of the event loop. A command is a line of
/// standard input with a JSON object: "do" names it, the rest are its arguments. The answer is a JSON object
/// in one line of standard output; its key "error" tells why a command could not be carried out. The end of
/// the input ends the program.
class RemoteControl : public QObject
{
    Q_OBJECT

public:
    RemoteControl();
    ~RemoteControl() override;

    int exec();

    // For the commands
    static MainWindow& window();  // another one after "open" with a file
    static Network& network();
    static Capture& capture();
    static QJsonObject answer(const QJsonObject& command);
    static QJsonObject failure(const QString& text);

private slots:
    void _readCommands();

private:
    QSocketNotifier _input;
    QByteArray _unfinishedLine;
};

/// A command of the program, defined as a variable with static storage.
class RemoteCommand
{
public:
    using Handler = QJsonObject (*)(const QJsonObject& arguments);

    RemoteCommand(const char* name, Handler handler);
};
