// The list of the window's shortcuts.
#pragma once

class QWidget;

namespace zq::console {

/// Shows the shortcuts of all actions of `window`, and of all its parts that say by `whatsThis`
/// what they do. Returns when the user closes the list.
void showShortcuts(QWidget& window);

}  // namespace zq::console
