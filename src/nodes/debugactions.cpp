#include "nodes/debugactions.h"

#include <QMenu>

#include <algorithm>
#include <iterator>

namespace {

struct Entry {
    TcpNode::DebugCommand command;
    const char* text;
    const char* icon;
};

const Entry entries[] = {
    {TcpNode::IdentifyDC, "Identify", ":DebugIdentify.png"},
    {TcpNode::RunContDC, "Run/Continue", ":DebugRunCont.png"},
    {TcpNode::PauseDC, "Pause", ":DebugPause.png"},
    {TcpNode::StepDC, "Step", ":DebugStep.png"},
    {TcpNode::ResetDC, "Reset", ":DebugReset.png"},
    {TcpNode::QuitDC, "Quit", ":DebugQuit.png"},
};

}  // namespace

QAction* addDebugAction(QMenu* menu, TcpNode::DebugCommand command)
{
    const auto* entry = std::find_if(std::begin(entries), std::end(entries),
                                     [=](const Entry& candidate) { return candidate.command == command; });
    QAction* action = menu->addAction(QIcon(QLatin1String(entry->icon)), QLatin1String(entry->text));
    action->setData(command);
    return action;
}
