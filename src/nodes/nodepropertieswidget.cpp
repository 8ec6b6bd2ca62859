#include "nodes/nodepropertieswidget.h"

NodePropertiesWidget::NodePropertiesWidget(Node* /*node*/, QWidget* parentProperties)
{
    if (parentProperties)
        parentProperties->setParent(this);
}
