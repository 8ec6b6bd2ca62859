#pragma once

#include <QDockWidget>

QT_BEGIN_NAMESPACE
class QScrollArea;
QT_END_NAMESPACE

class NetworkItem;

/// The dock that shows one property form at a time: that of the selected item, that of the network, or none.
/// It owns the form, which goes when it shows another one or nothing. The width that it chooses cuts off no
/// form; the user may make it narrower.
class PropertyEditor : public QDockWidget
{
    Q_OBJECT

public:
    explicit PropertyEditor(QWidget* parent);

    void editNetworkItem(NetworkItem* item);  // null: nothing
    void editNetwork();
    void editNothing();

private:
    void _removeForm();

    QScrollArea* _scrollArea;  // holds the form
};
