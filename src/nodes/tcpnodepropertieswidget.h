#pragma once

#include <QPointer>
#include <QWidget>

QT_BEGIN_NAMESPACE
class QLineEdit;
QT_END_NAMESPACE

class TcpNode;

/// The form that edits a TCP node. It shows which program is attached, above the form of an ordinary node.
class TcpNodePropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    /// Shows \a parentProperties, the form of an ordinary node or null, below this one.
    TcpNodePropertiesWidget(TcpNode* node, QWidget* parentProperties);

public slots:
    void connectionStateUpdate();

private:
    QPointer<TcpNode> _node;  // not owned; may go before the form
    QLineEdit* _peer;
};
