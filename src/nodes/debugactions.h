#pragma once

#include "nodes/tcpnode.h"

QT_BEGIN_NAMESPACE
class QAction;
class QMenu;
QT_END_NAMESPACE

/// Adds the entry for \a command to \a menu. The caller says what happens when the user chooses it.
QAction* addDebugAction(QMenu* menu, TcpNode::DebugCommand command);
