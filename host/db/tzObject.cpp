#include "tzObject.h"

namespace {
// The process's generator. Objects are made on worker threads too (file readers), so the
// pointer itself is read and replaced atomically.
tzUniqueIDGenerator::Shared &slot()
{
    static tzUniqueIDGenerator::Shared g = std::make_shared<tzUniqueIDGenerator>();
    return g;
}
tzUniqueIDGenerator::Shared generator()
{
    return std::atomic_load(&slot());
}
} // namespace

tzObject::tzObject(const QString &name)
    : m_name(name)
    , m_uniqueID(generator()->fetchOne())
{
}

void tzObject::setUniqueID(unsigned id)
{
    m_uniqueID = id;
    generator()->update(id);
}

void tzObject::setMetaData(const QVariantMap &data, bool overwrite)
{
    for (auto it = data.constBegin(); it != data.constEnd(); ++it) {
        if (overwrite || !m_metaData.contains(it.key()))
            m_metaData.insert(it.key(), it.value());
    }
}

void tzObject::SetUniqueIDGenerator(tzUniqueIDGenerator::Shared g)
{
    if (g)
        std::atomic_store(&slot(), std::move(g));
}

tzUniqueIDGenerator::Shared tzObject::GetUniqueIDGenerator()
{
    return generator();
}
