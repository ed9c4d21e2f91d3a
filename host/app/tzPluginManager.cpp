#include "tzPluginManager.h"

#include "tzApplicationInterface.h"
#include "tzStdPluginInterface.h"

#include <QAction>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>
#include <QPluginLoader>

tzPluginManager::tzPluginManager(tzApplicationInterface *app, QObject *parent)
    : QObject(parent)
    , m_app(app)
{
}

tzPluginManager::~tzPluginManager()
{
    unloadAll();
}

QStringList tzPluginManager::searchPaths()
{
    const QString appDir = QCoreApplication::applicationDirPath();
    // Beside the executable (a build tree), or where an install puts them.
    QStringList folders {appDir + QStringLiteral("/plugins"),
                         appDir + QStringLiteral("/../plugins"),
                         appDir + QStringLiteral("/../lib/tessaro/plugins")};
    const QString extra = qEnvironmentVariable("TESSARO_PLUGIN_PATH");
    for (const QString &folder : extra.split(QDir::listSeparator(), Qt::SkipEmptyParts))
        folders << folder;
    return folders;
}

int tzPluginManager::loadAll(const QStringList &folders)
{
    QStringList seen;
    int loaded = 0;
    for (const QString &folder : folders) {
        const QDir dir(folder);
        if (!dir.exists())
            continue;
        for (const QFileInfo &file : dir.entryInfoList(QDir::Files, QDir::Name)) {
            const QString path = file.canonicalFilePath();
            if (!QLibrary::isLibrary(path) || seen.contains(path))
                continue;
            seen << path;
            if (load(path))
                ++loaded;
        }
    }
    return loaded;
}

bool tzPluginManager::load(const QString &path)
{
    auto *loader = new QPluginLoader(path, this);
    // The library stays mapped until the process ends: objects of its classes (an overlay dialog
    // parented to the main window) may outlive the plug-in object itself.
    loader->setLoadHints(QLibrary::PreventUnloadHint);
    QObject *object = loader->instance();
    if (!object) {
        m_app->printToConsole(
            QStringLiteral("[Plugin] Failed to load '%1': %2").arg(path, loader->errorString()),
            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        delete loader;
        return false;
    }
    auto *plugin = qobject_cast<tzStdPluginInterface *>(object);
    if (!plugin) {
        m_app->printToConsole(
            QStringLiteral("[Plugin] '%1' is not a Tessaro standard plug-in "
                           "(interface %2 missing)")
                .arg(path, QStringLiteral("orv.rd.Tessaro.tzStdPluginInterface/1.4")),
            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        loader->unload();
        delete loader;
        return false;
    }
    plugin->setAppInterface(m_app);
    if (!plugin->start()) {
        m_app->printToConsole(QStringLiteral("[Plugin] '%1' refused to start").arg(path),
                              tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        loader->unload();
        delete loader;
        return false;
    }
    Plugin entry;
    entry.path = path;
    entry.loader = loader;
    entry.instance = plugin;
    entry.actions = plugin->listActions();
    m_plugins.push_back(entry);
    m_app->printToConsole(QStringLiteral("[Plugin] Loaded '%1' (%2)").arg(plugin->getName(), path));
    return true;
}

void tzPluginManager::unloadAll()
{
    while (!m_plugins.isEmpty()) {
        Plugin entry = m_plugins.takeLast();
        entry.instance->stop();
        // unload() deletes the root object of the plug-in, then the library goes.
        entry.loader->unload();
        delete entry.loader;
    }
}
