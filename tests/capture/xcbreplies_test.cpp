// Answers of an X server that say they hold more than they do: nothing beyond them is read.
#include "clientshadow.h"
#include "testregistry.h"
#include "xcbreplies.h"

#include <QTest>

#include <xcb/shape.h>

namespace {

/// An answer in memory that goes on behind it, with a number that must not be found in what is read.
template <typename Reply>
struct Answer {
    static constexpr quint32 foreign = 3;

    explicit Answer(std::initializer_list<quint32> body)
    {
        std::fill(std::begin(words), std::end(words), foreign);
        std::copy(body.begin(), body.end(), std::begin(words));
        reply.length = quint32(body.size());
    }

    const Reply* get() const { return &reply; }

    Reply reply{};
    quint32 words[64];
};

Answer<xcb_get_property_reply_t> propertyAnswer(std::initializer_list<quint32> body, int format, quint32 told)
{
    Answer<xcb_get_property_reply_t> answer(body);
    answer.reply.format = quint8(format);
    answer.reply.value_len = told;
    return answer;
}

}

class XcbRepliesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void wholeAnswers();
    void shorterPropertyHasNoValues();
    void shorterTextIsNone();
    void shorterShadowIsNone();
    void fewerChildrenAreNone();
    void fewerRectanglesAreNone();
    void processesEndWithTheAnswer();
};

void XcbRepliesTest::wholeAnswers()
{
    const auto numbers = propertyAnswer({5, 6}, 32, 2);
    QCOMPARE(x11::propertyValues(&numbers.reply).size(), std::size_t(2));
    QCOMPARE(x11::propertyValues(&numbers.reply)[1], 6U);
    QVERIFY(x11::propertyText(&numbers.reply).isEmpty());
    const auto text = propertyAnswer({0x64636261, 0x65}, 8, 5);
    QCOMPARE(x11::propertyText(&text.reply), QByteArrayView("abcde"));
    QVERIFY(x11::propertyValues(&text.reply).empty());
    QVERIFY(x11::propertyValues(nullptr).empty() && x11::propertyText(nullptr).isEmpty());
    QVERIFY(x11::childrenIn(nullptr).empty());
}

void XcbRepliesTest::shorterPropertyHasNoValues()
{
    for (const quint32 told : {3U, 0x40000000U, 0xffffffffU})
        QVERIFY(x11::propertyValues(propertyAnswer({5, 6}, 32, told).get()).empty());
}

void XcbRepliesTest::shorterTextIsNone()
{
    for (const quint32 told : {9U, 0x80000000U, 0xffffffffU})
        QVERIFY(x11::propertyText(propertyAnswer({5, 6}, 8, told).get()).isEmpty());
}

void XcbRepliesTest::shorterShadowIsNone()
{
    QCOMPARE(x11::clientShadow(propertyAnswer({3}, 32, 4).get(), QSize(800, 600)), QMargins());
    QCOMPARE(x11::clientShadow(propertyAnswer({3, 3, 3, 3}, 32, 4).get(), QSize(800, 600)), QMargins(3, 3, 3, 3));
}

void XcbRepliesTest::fewerChildrenAreNone()
{
    Answer<xcb_query_tree_reply_t> tree({5, 6});
    tree.reply.children_len = 2;
    QCOMPARE(x11::childrenIn(&tree.reply).size(), std::size_t(2));
    tree.reply.children_len = 3;
    QVERIFY(x11::childrenIn(&tree.reply).empty());
}

void XcbRepliesTest::fewerRectanglesAreNone()
{
    const Answer<xcb_shape_get_rectangles_reply_t> shape({1, 2, 3, 4});
    QCOMPARE(x11::itemsOf<xcb_rectangle_t>(shape.reply, 2).size(), std::size_t(2));
    QVERIFY(x11::itemsOf<xcb_rectangle_t>(shape.reply, 3).empty());
    QVERIFY(x11::itemsOf<xcb_rectangle_t>(shape.reply, std::size_t(1) << 61).empty());
}

void XcbRepliesTest::processesEndWithTheAnswer()
{
    constexpr quint32 mask = 2; // XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID
    const auto processIn = [](std::initializer_list<quint32> body, quint32 told) {
        Answer<xcb_res_query_client_ids_reply_t> answer(body);
        answer.reply.num_ids = told;
        return x11::clientProcess(&answer.reply);
    };
    QCOMPARE(processIn({9, mask, 4, 4242}, 1), qint64(4242));
    QCOMPARE(processIn({9, 1, 4, 7, 9, mask, 4, 4242}, 2), qint64(4242)); // behind an entry of another kind
    QCOMPARE(processIn({9, mask, 0, 9, mask, 4, 4242}, 2), qint64(4242));
    QCOMPARE(processIn({9, mask, 4, 4242}, 0), qint64(0));
    QCOMPARE(processIn({9, mask, 4}, 1), qint64(0)); // its value is missing
    QCOMPARE(processIn({9, 1, 0}, 9), qint64(0)); // the others are
    QCOMPARE(processIn({9, 1, 0xfffffffc, 9, mask, 4, 4242}, 2), qint64(0));
    QCOMPARE(x11::clientProcess(nullptr), qint64(0));
}

ORVANTIS_TEST(XcbRepliesTest)
#include "xcbreplies_test.moc"
