#include "connections/connectionpropertieswidget.h"

ConnectionPropertiesWidget::ConnectionPropertiesWidget(Connection* /*connection*/, QWidget* parentProperties)
{
    if (parentProperties)
        parentProperties->setParent(this);
}
