#include "ui/propertyeditor.h"

#include "network/network.h"
#include "network/networkitem.h"
#include "network/networksimulation.h"

#include <QScrollArea>
#include <QScrollBar>

namespace {

constexpr int smallestWidth = 240;  // pixels

/// As wide as its form beside the vertical scroll bar. The form of the network, the first one shown, has the
/// widest rows of all. A dock asks its content, not itself, for the width to begin with.
class FormArea : public QScrollArea
{
public:
    using QScrollArea::QScrollArea;

    QSize sizeHint() const override
    {
        const int formWidth = widget() ? widget()->minimumSizeHint().width() : 0;
        const int besideForm = 2 * frameWidth() + verticalScrollBar()->sizeHint().width();
        return QScrollArea::sizeHint().expandedTo(QSize(formWidth + besideForm, 0));
    }
};

}  // namespace

PropertyEditor::PropertyEditor(QWidget* parent)
    : QDockWidget(tr("Property Editor"), parent)
    , _scrollArea(new FormArea(this))
{
    setMinimumWidth(smallestWidth);
    setAllowedAreas(Qt::RightDockWidgetArea | Qt::LeftDockWidgetArea);
    setFeatures(QDockWidget::DockWidgetMovable | QDockWidget::DockWidgetFloatable);

    _scrollArea->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    _scrollArea->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    _scrollArea->setWidgetResizable(true);
    setWidget(_scrollArea);
    editNetwork();
}

void PropertyEditor::editNetworkItem(NetworkItem* item)
{
    _removeForm();
    if (item)
        _scrollArea->setWidget(item->propertiesWidget());
}

void PropertyEditor::editNetwork()
{
    _removeForm();
    _scrollArea->setWidget(NetworkSimulation::instance()->network()->propertiesWidget());
}

void PropertyEditor::editNothing()
{
    _removeForm();
}

/// A field in the middle of an edit finishes it first: there is no step that would apply it later.
void PropertyEditor::_removeForm()
{
    QWidget* form = _scrollArea->widget();
    if (!form)
        return;
    if (QWidget* field = form->focusWidget())
        field->clearFocus();
    delete form;
    _scrollArea->verticalScrollBar()->setRange(0, 0);  // the area does not shrink it with an empty content
}
