#pragma once

#include <QWidget>

class TcpNode;

class TcpNodePropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    TcpNodePropertiesWidget(TcpNode* node, QWidget* parentProperties);
};
