#pragma once

#include "ledger.h"
#include "ui/mainwindow.h"

#include <QJsonObject>
#include <QObject>
#include <QSocketNotifier>

#include <memory>

class Connection;
class NetworkItem;
class Node;

/// What a user could do at the window, done on command between two passes of the event loop. A command is a
/// line of standard input with a JSON object: "do" names it, the rest are its arguments. Each is answered by
/// a JSON object in one line of standard output, which has the key "error" when the command cannot be carried
/// out. Items have numbers, which "state" tells. The end of the input ends the program.
class SimulatorCommands : public QObject
{
    Q_OBJECT

public:
    SimulatorCommands();

private slots:
    void _readCommands();

private:
    using Handler = QJsonObject (SimulatorCommands::*)(const QJsonObject&);
    static Handler _handlerOf(const QString& name);
    QJsonObject _answer(const QByteArray& line);

    QJsonObject _newSimulation(const QJsonObject& arguments);
    QJsonObject _open(const QJsonObject& arguments);
    QJsonObject _parameters(const QJsonObject& arguments);
    QJsonObject _save(const QJsonObject& arguments);
    QJsonObject _exportFrames(const QJsonObject& arguments);
    QJsonObject _listen(const QJsonObject& arguments);
    QJsonObject _identification(const QJsonObject& arguments);
    QJsonObject _addNode(const QJsonObject& arguments);
    QJsonObject _link(const QJsonObject& arguments);
    QJsonObject _delete(const QJsonObject& arguments);
    QJsonObject _select(const QJsonObject& arguments);
    QJsonObject _move(const QJsonObject& arguments);
    QJsonObject _set(const QJsonObject& arguments);
    QJsonObject _capture(const QJsonObject& arguments);
    QJsonObject _debug(const QJsonObject& arguments);
    QJsonObject _state(const QJsonObject& arguments);
    QJsonObject _account(const QJsonObject& arguments);
    QJsonObject _footprint(const QJsonObject& arguments);

    NetworkItem* _item(int number) const;  // null: there is none
    template <typename Item> Item* _itemAs(const QJsonValue& number) const;
    int _numberOf(NetworkItem* item);
    QWidget* _newFormOf(const QJsonValue& item) const;
    QJsonObject _closeAccount();

    std::unique_ptr<MainWindow> _window;
    Ledger _ledger;
    QSocketNotifier _input;
    QByteArray _unfinishedLine;
    int _lastNumber = 0;  // of an item
};
