#pragma once

#include <QDockWidget>

QT_BEGIN_NAMESPACE
class QScrollArea;
QT_END_NAMESPACE

class NetworkItem;

/// The dock that shows one property form at a time: of the selected item, of the network, or none. The form
/// shown is owned and goes when another one or nothing is shown. At the dock's own choice of width no form is
/// cut off; the user may make it narrower.
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
