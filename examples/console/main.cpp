// A window for the peripheral service, made with its client library. See docs/console.md.
#include <QApplication>

#include "appearance.h"
#include "console_window.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  zq::console::applyAppearance(application);
  zq::console::ConsoleWindow window;
  window.show();
  return QApplication::exec();
}
