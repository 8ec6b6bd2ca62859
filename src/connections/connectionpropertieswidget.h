#pragma once

#include <QWidget>

class Connection;

class ConnectionPropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    ConnectionPropertiesWidget(Connection* connection, QWidget* parentProperties);
};
