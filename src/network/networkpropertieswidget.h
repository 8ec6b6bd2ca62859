#pragma once

#include <QWidget>

class NetworkPropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    explicit NetworkPropertiesWidget(QWidget* extra);
};
