#pragma once

#include <QObject>

class tzApplicationInterface;
class tzLumivert;

//! The TCP link with the companion application. The connection itself arrives with its own
//! work; until then the link never connects, so the dialog shows the unconnected icon.
class tzCommunicationHandler : public QObject
{
    Q_OBJECT

public:
    explicit tzCommunicationHandler(tzLumivert *plugin)
        : m_plugin(plugin)
    {
    }

    tzLumivert *plugin() const { return m_plugin; }
    void setAppInterface(tzApplicationInterface *app) { m_app = app; }
    //! True when connected.
    bool connectToServer() { return false; }
    void disconnectFromServer() { }

private:
    tzLumivert *m_plugin; // not owned
    tzApplicationInterface *m_app = nullptr;
};
