#include "shownpair.h"

#include <QSignalSpy>
#include <QTextDocument>
#include <QTextDocumentFragment>
#include <QToolTip>
#include <QtTest>

#include <utility>

using namespace Painting;

/// Tests what clicks on links and nodes do, and their tool tips.
class TestSceneMouse : public QObject, protected ShownPair
{
    Q_OBJECT

private:
    /// Rests the mouse long enough for a tool tip.
    void hover(const QPointF& position)
    {
        const QPoint local = _view->mapFromScene(position);
        QHelpEvent event(QEvent::ToolTip, local, _view->viewport()->mapToGlobal(local));
        QCoreApplication::sendEvent(_view->viewport(), &event);
    }

private slots:
    void init() { beginPair(); }
    void cleanup() { endPair(); }

    // Clicks

    void aClickWithinTheBandSelects_data() { directions(); }

    void aClickWithinTheBandSelects()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {-8.0, -5.0, -2.0, 0.0, 2.0, 5.0, 8.0}) {
            for (const double along : {-0.3, 0.0, 0.3}) {
                const QPointF position = middle + difference * along + across(difference) * side;
                network().clearSelection();
                click(position);
                QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
                QVERIFY(!network().mouseGrabberItem());
            }
        }
        QVERIFY(isShownTruly());
    }

    void aClickBesideTheBandClearsTheSelection_data() { directions(); }

    void aClickBesideTheBandClearsTheSelection()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {-13.0, 13.0}) {
            link().setSelected(true);
            click(middle + across(difference) * side);
            QVERIFY(network().selectedItems().isEmpty());
        }
        link().setSelected(true);
        click(middle + difference * 0.9);  // beyond the end
        QVERIFY(network().selectedItems().isEmpty());
    }

    void aClickReplacesTheSelectionInOneStep()
    {
        showView();
        _pair->sender->setSelected(true);
        QSignalSpy changed(&network(), SIGNAL(selectionChanged()));
        click(middle + QPointF(0, 6));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        QCOMPARE(changed.size(), 1);
        click(middle + QPointF(5, -6));
        QCOMPARE(changed.size(), 1);
        QVERIFY(isShownTruly());
    }

    void aCtrlClickTogglesAndKeepsTheOthers_data() { directions(); }

    void aCtrlClickTogglesAndKeepsTheOthers()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        _pair->sender->setSelected(true);
        for (const double side : {0.0, 2.0, -6.0, 7.0}) {
            const bool wasSelected = link().isSelected();
            const QPointF position = middle + across(difference) * side;
            mouse(QEvent::MouseButtonPress, position, Qt::LeftButton, Qt::ControlModifier);
            QCOMPARE(link().isSelected(), wasSelected);
            mouse(QEvent::MouseMove, position, Qt::LeftButton, Qt::ControlModifier);
            mouse(QEvent::MouseButtonRelease, position, Qt::LeftButton, Qt::ControlModifier);
            QCOMPARE(link().isSelected(), !wasSelected);
            QVERIFY(_pair->sender->isSelected());
        }
    }

    void aClickOnOneOfSeveralLeavesItAloneSelected_data() { directions(); }

    /// Waits for the release: the press may begin a drag of all.
    void aClickOnOneOfSeveralLeavesItAloneSelected()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        for (const double side : {0.0, 2.0, -6.0, 7.0}) {
            const QPointF position = middle + across(difference) * side;
            _pair->sender->setSelected(true);
            link().setSelected(true);
            mouse(QEvent::MouseButtonPress, position);
            QCOMPARE(network().selectedItems().size(), 2);
            mouse(QEvent::MouseButtonRelease, position);
            QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        }
    }

    void anotherButtonSelectsNoLink()
    {
        showView();
        click(middle + QPointF(0, 6), Qt::RightButton);
        QVERIFY(network().selectedItems().isEmpty());
        QVERIFY(!network().mouseGrabberItem());
    }

    void aNodeWithinTheBandHasPrecedence()
    {
        Node* between = TestHelpers::addNode(3);
        between->setPos(middle + QPointF(0, 25));  // its disc reaches into the band of the link
        showView();
        click(middle + QPointF(0, 7));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{between});
        click(middle + QPointF(0, -7));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
        click(_pair->sender->pos() + QPointF(18, 0));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->sender});
    }

    void theUpperOfTwoCrossingLinksIsPicked()
    {
        span(QPointF(200, 200));
        Node* left = TestHelpers::addNode(3);
        Node* right = TestHelpers::addNode(4);
        left->setPos(middle - QPointF(100, 0));
        right->setPos(middle + QPointF(100, 0));
        auto* level = new Connection(left, right);
        network().addItem(level);
        level->setToolTip(QStringLiteral("above"));
        link().setToolTip(QStringLiteral("below"));
        showView();
        click(middle + QPointF(0, 5));  // within the bands of both
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{level});
        click(middle + QPointF(25, 20));  // within that of the lower one only
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});

        link().setZValue(level->zValue() + 0.1);
        click(middle + QPointF(0, 5));
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->link});
    }

    // Tool tips

    void theToolTipShowsWithinTheBand()
    {
        link().setToolTip(QStringLiteral("the trunk"));
        showView();
        hover(middle + QPointF(0, 6));
        QTRY_COMPARE(QToolTip::text(), QStringLiteral("the trunk"));
        hover(middle + QPointF(0, 30));
        QTRY_VERIFY(!QToolTip::isVisible());
        link().setToolTip(QString());
        hover(middle + QPointF(0, 6));
        QVERIFY(!QToolTip::isVisible());
    }

    void theToolTipShowsTheCommentAsTyped_data()
    {
        QTest::addColumn<QString>("comment");
        QTest::newRow("plain") << "a plain one";
        QTest::newRow("a tag") << "<b>bold</b> & 2 < 3";
        QTest::newRow("a picture") << "<img src=\"no.png\">";
        QTest::newRow("an entity") << "&lt;\nis a sign";
        QTest::newRow("lines and spaces") << "<i>one</i>\n  two   spaces\n\nfour";
        QTest::newRow("the end of the paragraph") << "</p><h1>large</h1>";
    }

    void theToolTipShowsTheCommentAsTyped()
    {
        QFETCH(QString, comment);
        showView();
        const std::pair<QGraphicsItem*, QPointF> places[] = {{_pair->sender, _pair->sender->pos()},
                                                             {_pair->link, middle},
                                                             {_pair->link, middle + QPointF(0, 6)}};
        for (const auto& place : places) {
            place.first->setToolTip(comment);
            hover(place.second);
            QTRY_VERIFY(QToolTip::isVisible());
            const QString text = QToolTip::text();
            const bool isMarkup = Qt::mightBeRichText(text);
            QCOMPARE(isMarkup ? QTextDocumentFragment::fromHtml(text).toPlainText() : text, comment);
            QCOMPARE(place.first->toolTip(), comment);
            place.first->setToolTip(QString());
            hover(place.second);
            QTRY_VERIFY(!QToolTip::isVisible());
        }
    }

    // Who holds the mouse

    void theMouseIsNotKeptAfterTheRelease_data()
    {
        QTest::addColumn<bool>("isNode");
        QTest::newRow("node") << true;
        QTest::newRow("link") << false;
    }

    /// Changes the mode in between, too.
    void theMouseIsNotKeptAfterTheRelease()
    {
        QFETCH(bool, isNode);
        const QPointF spot = isNode ? _pair->sender->pos() : middle + QPointF(0, 6);
        showView();
        for (const auto mode : {Network::Selection, Network::ConnectionDrawing, Network::NodePlacement}) {
            mouse(QEvent::MouseButtonPress, spot);
            QVERIFY(network().mouseGrabberItem());
            network().setEditorMode(mode);
            mouse(QEvent::MouseButtonRelease, spot);
            QVERIFY(!network().mouseGrabberItem());
            network().setEditorMode(Network::Selection);
            click(QPointF(20, 20));
            QVERIFY(network().selectedItems().isEmpty());
        }
    }

    void aLinkDeletedWhilePressedIsForgotten()
    {
        showView();
        mouse(QEvent::MouseButtonPress, middle + QPointF(0, 6));
        QVERIFY(link().isSelected());
        network().deleteSelectedNetworkItem();
        mouse(QEvent::MouseMove, middle + QPointF(0, 8));
        mouse(QEvent::MouseButtonRelease, middle + QPointF(0, 8));
        QCOMPARE(network().items().size(), 2);
        QVERIFY(!network().mouseGrabberItem());
    }

    void theSceneHoldsNothingButNodesAndLinks()
    {
        showView();
        sendArriving();
        click(middle + QPointF(0, 6));
        QVERIFY(isShownTruly());
        QCOMPARE(network().items().size(), 3);
    }
};

QTEST_MAIN(TestSceneMouse)
#include "tst_scenemouse.moc"
