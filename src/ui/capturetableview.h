#pragma once

#include <QWidget>

QT_BEGIN_NAMESPACE
class QBoxLayout;
class QCheckBox;
class QLabel;
class QModelIndex;
class QTableView;
QT_END_NAMESPACE

class Capture;
class CaptureColumnHeader;

/// The table of captured frames with the switches of the capture beneath it. Only the table keeps a pointer
/// to the model.
class CaptureTableView : public QWidget
{
    Q_OBJECT

public:
    explicit CaptureTableView(QWidget* parent);

    /// Shows \a model, which it does not own. Null detaches the present one.
    void setCaptureModel(Capture* model);

    QSize sizeHint() const override;  // shows all columns

public slots:
    void enabledChanged(int state);
    void viewFollowsChanged(int state);
    void hideAddrChanged(int state);
    void clearCapture();
    void rowsInsertedHandler(const QModelIndex& parent, int first, int last);

protected:
    void showEvent(QShowEvent* event) override;

private slots:
    void _rowsShown();

private:
    Capture* _model() const;
    CaptureColumnHeader* _columns() const;
    void _setUpTable();
    void _addBar(QBoxLayout* layout);
    int _widthBesideColumns() const;
    void _makeRoomForData();
    void _fillWithLastColumn();
    void _showCount(int frames);

    QTableView* _captureTableView;
    QCheckBox* _captureEnabled;
    QCheckBox* _viewFollows;
    QCheckBox* _hideAddr;
    QLabel* _frameCountLabel;
    bool _hasBeenShown = false;
};
