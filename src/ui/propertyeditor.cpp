#include "ui/propertyeditor.h"

#include "network/network.h"
#include "network/networkitem.h"
#include "network/networksimulation.h"

#include <QScrollArea>
#include <QScrollBar>

namespace {

constexpr int smallestWidth = 240;  // pixels

/// Wants to be as wide as its form and the vertical scroll bar. The network's form, which comes first, has
/// the widest rows of all. A dock asks its content, not itself, for its first width.
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

/// Deletes the form. A field in the middle of an edit finishes it first, since no later step would apply it.
void PropertyEditor::_removeForm()
{
    QWidget* form = _scrollArea->widget();
    if (!form)
        return;
    if (QWidget* field = form->focusWidget())
        field->clearFocus();
    delete form;
    _scrollArea->verticalScrollBar()->setRange(0, 0);  // an area without a form keeps the old range
}
