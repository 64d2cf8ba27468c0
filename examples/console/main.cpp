// A window for the peripheral service, made with its client library. See docs/console.md.
#include <QApplication>

#include "appearance.h"
#include "console_window.h"

int main(int argc, char** argv) {
  QApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
  QApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
  QApplication application(argc, argv);
  QApplication::setOrganizationName("perix");  // under these names the window's size is kept
  QApplication::setApplicationName("perix-console");
  zq::console::applyAppearance(application);
  zq::console::ConsoleWindow window;
  window.show();
  return QApplication::exec();
}
