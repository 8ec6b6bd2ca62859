#include "nodes/tcpnodepropertieswidget.h"

TcpNodePropertiesWidget::TcpNodePropertiesWidget(TcpNode* /*node*/, QWidget* parentProperties)
{
    if (parentProperties)
        parentProperties->setParent(this);
}
