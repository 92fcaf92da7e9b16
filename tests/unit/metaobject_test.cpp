// The recorder's meta-object: names and order are an interface.
#include "gstrecorder.h"
#include "testregistry.h"

#include <QMetaMethod>
#include <QTest>

class MetaObjectTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void className();
    void methodsInOrder();
    void nothingElse();
};

void MetaObjectTest::className()
{
    QCOMPARE(GstRecorder::staticMetaObject.className(), "GstRecorder");
    QCOMPARE(GstRecorder::staticMetaObject.superClass(), &QObject::staticMetaObject);
}

void MetaObjectTest::methodsInOrder()
{
    const QMetaObject& meta = GstRecorder::staticMetaObject;
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 3);
    const auto signature = [&](int index) { return meta.method(meta.methodOffset() + index).methodSignature(); };
    const auto kind = [&](int index) { return meta.method(meta.methodOffset() + index).methodType(); };
    QCOMPARE(signature(0), QByteArray("frameCome()"));
    QCOMPARE(kind(0), QMetaMethod::Signal);
    QCOMPARE(signature(1), QByteArray("onFrameCome()"));
    QCOMPARE(kind(1), QMetaMethod::Slot);
    QCOMPARE(signature(2), QByteArray("proceessData()"));
    QCOMPARE(kind(2), QMetaMethod::Slot);
}

void MetaObjectTest::nothingElse()
{
    const QMetaObject& meta = GstRecorder::staticMetaObject;
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

ORVANTIS_TEST(MetaObjectTest)
#include "metaobject_test.moc"
