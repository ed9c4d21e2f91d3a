#pragma once

class tzCommunicationHandler;

//! What the sight tool needs of the run that drives it: the settings it reads, the keys held,
//! the "Modifier Z precedent" switch, and where the texts to the companion go.
class tzSightToolHost
{
public:
    virtual ~tzSightToolHost() = default;
    //! The settings "accuaryLowestPoint", "accuaryMovePoint" and "displayIn2D" as the run read
    //! them.
    virtual double accuaryLowestPoint() const = 0;
    virtual double accuaryMovePoint() const = 0;
    virtual bool displayIn2D() const = 0;
    //! Whether the key (a Qt::Key) is held over the view now.
    virtual bool isKeyHeld(int key) const = 0;
    //! Whether the previous-height switch ("Modifier Z precedent") is on: the next pick gives
    //! its height to the last sight (false without the run's tool bar).
    virtual bool previousHeightWanted() const = 0;
    //! Turns the switch off once its pick has been made.
    virtual void previousHeightDone() = 0;
    //! The sender of the texts to the companion, or null.
    virtual tzCommunicationHandler *link() const = 0;
};
