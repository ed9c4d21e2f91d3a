#pragma once

#include <QDialog>

class QTextEdit;

//! The help window: the plug-in's documentation page, read from the resources.
class tzLumivertInfo : public QDialog
{
    Q_OBJECT

public:
    explicit tzLumivertInfo(QWidget *parent = nullptr);

    QTextEdit *textView() const { return m_text; }

private:
    QTextEdit *m_text;
};
