#pragma once

#include "tzMeasurement.h"
#include "tzPolyline.h"

#include <QColor>

class tzPointCloud;

//! A measurement between two points of a cloud, kept as a two-vertex polyline on that cloud
//! (its vertex set, not owned). Drawn as a marker on each point and an arrow from the first
//! to the second; the marker shapes are shared by all point pairs.
class tzPointPair : public tzPolyline, public tzMeasurement
{
public:
    //! An empty pair on cloud.
    explicit tzPointPair(tzPointCloud *cloud);
    //! The vertex set and the point indices of an existing polyline.
    explicit tzPointPair(const tzPolyline &polyline);

    //! End minus start; (0, 0, 0) unless there are exactly two points.
    TZVector3 direction() const;
    float markerScale() const { return m_markerScale; }

protected:
    void drawMeOnly(tzDrawContext &context) override;

private:
    unsigned char m_flags[3] = {0, 0, 0};
    QColor m_activeColour = QColor(255, 255, 0);
    QColor m_secondColour = QColor(0, 255, 0);
    QColor m_thirdColour = QColor(0, 255, 255);
    QColor m_alternateColour = QColor(0, 0, 255);
    float m_markerScale = 5.f;
};

//! A distance with its direction: trend (azimuth clockwise from north, +Y) and plunge (positive
//! downwards), the end points and the length in the metadata, the length as the name.
class tzLineation : public tzPointPair
{
public:
    explicit tzLineation(tzPointCloud *cloud = nullptr);

    //! Scene files keep a distance as a distance: a polyline that names the plug-in's factory.
    static const char *const FACTORY_NAME; // "tzLineation"
    quint32 getClassID() const override { return TZ_TYPES::POLY_LINE | TZ_TYPES::CUSTOM_H_OBJECT; }
    QString getFactoryName() const override { return QLatin1String(FACTORY_NAME); }

    //! Writes the type tag, and with two points the direction, ends and length (the name
    //! becomes the length, "12.3 metre ").
    virtual void computeMetadata();
};
