#pragma once

#include <QWidget>

class Node;

class NodePropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    NodePropertiesWidget(Node* node, QWidget* parentProperties);
};
