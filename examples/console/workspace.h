// Where the panels stand. There is room for all of them on a large screen; in a narrow window the
// pen is a tab, in a low window the events are a tab, too.
#pragma once

#include <QSplitter>

class QSettings;
class QTabWidget;

namespace zq::console {

class Workspace : public QSplitter {
  Q_OBJECT

 public:
  struct Parts {
    QWidget* desktops;
    QWidget* devices;
    QWidget* printers;
    QWidget* pen;
    QWidget* events;
  };
  /// Takes the parts over.
  Workspace(const Parts& parts, QWidget* parent);

  /// The places of the handles between the panels. Restored before the window is shown.
  void save(QSettings& settings) const;
  void restore(const QSettings& settings);

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  void placePen(bool narrow);
  void placeEvents(bool low);

  Parts parts_;
  QTabWidget* tabs_;
  QSplitter* columns_;
  QSplitter* left_;  ///< the first column
  bool narrow_ = false;
  QByteArray otherColumns_;  ///< the state of columns_ in the other arrangement
};

}  // namespace zq::console
