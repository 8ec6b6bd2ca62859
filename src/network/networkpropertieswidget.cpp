#include "network/networkpropertieswidget.h"

NetworkPropertiesWidget::NetworkPropertiesWidget(QWidget* parentProperties)
{
    if (parentProperties)
        parentProperties->setParent(this);
}
