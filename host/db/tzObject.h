#pragma once

#include "qtz_db_global.h"
#include "tzTypes.h"

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <memory>

//! Hands out unique object IDs. The application owns one and installs it in every library (and
//! plug-in) so that IDs never collide across them. IDs start at 1; 0 means none.
class QTZ_DB_LIB_API tzUniqueIDGenerator
{
public:
    using Shared = std::shared_ptr<tzUniqueIDGenerator>;
    virtual ~tzUniqueIDGenerator() = default;
    // Any thread: files are read into new objects on worker threads.
    virtual unsigned fetchOne() { return ++m_last; }
    virtual unsigned getLast() const { return m_last; }
    //! Makes sure later IDs stay above id.
    virtual void update(unsigned id)
    {
        unsigned last = m_last.load();
        while (id > last && !m_last.compare_exchange_weak(last, id)) { }
    }

private:
    std::atomic<unsigned> m_last {0};
};

//! Base of every scene object: a name, a unique ID, an enabled flag and metadata.
class QTZ_DB_LIB_API tzObject
{
public:
    explicit tzObject(const QString &name = QString());
    virtual ~tzObject() = default;
    tzObject(const tzObject &) = delete;
    tzObject &operator=(const tzObject &) = delete;

    virtual QString getName() const { return m_name; }
    virtual void setName(const QString &name) { m_name = name; }

    virtual quint32 getClassID() const { return TZ_TYPES::OBJECT; }
    bool isA(quint32 type) const { return getClassID() == type; }
    //! All the bits of type are set in this object's class ID.
    bool isKindOf(quint32 type) const { return (getClassID() & type) == type; }

    unsigned getUniqueID() const { return m_uniqueID; }
    //! Only for loading scene files and tests; IDs are otherwise given at construction.
    virtual void setUniqueID(unsigned id);

    bool isEnabled() const { return m_enabled; }
    virtual void setEnabled(bool state) { m_enabled = state; }

    QVariant getMetaData(const QString &key) const { return m_metaData.value(key); }
    bool hasMetaData(const QString &key) const { return m_metaData.contains(key); }
    void setMetaData(const QString &key, const QVariant &value) { m_metaData.insert(key, value); }
    //! Inserts every entry of data; an existing key is replaced only when overwrite is set.
    void setMetaData(const QVariantMap &data, bool overwrite = false);
    bool removeMetaData(const QString &key) { return m_metaData.remove(key) > 0; }
    const QVariantMap &metaData() const { return m_metaData; }

    static void SetUniqueIDGenerator(tzUniqueIDGenerator::Shared generator);
    static tzUniqueIDGenerator::Shared GetUniqueIDGenerator();

protected:
    QString m_name;
    unsigned m_uniqueID = 0;
    bool m_enabled = true;
    QVariantMap m_metaData;
};
