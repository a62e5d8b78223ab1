#include "host/x11/x11_window_list.hpp"

#include <X11/Xatom.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace korvalen::host {

struct X11WindowList::Atoms {
  explicit Atoms(Display* display)
      : supported(XInternAtom(display, "_NET_SUPPORTED", False)),
        clientList(XInternAtom(display, "_NET_CLIENT_LIST", False)),
        stacking(XInternAtom(display, "_NET_CLIENT_LIST_STACKING", False)),
        active(XInternAtom(display, "_NET_ACTIVE_WINDOW", False)),
        currentDesktop(XInternAtom(display, "_NET_CURRENT_DESKTOP", False)),
        desktop(XInternAtom(display, "_NET_WM_DESKTOP", False)),
        state(XInternAtom(display, "_NET_WM_STATE", False)),
        fullscreen(XInternAtom(display, "_NET_WM_STATE_FULLSCREEN", False)),
        maximizedVert(XInternAtom(display, "_NET_WM_STATE_MAXIMIZED_VERT", False)),
        maximizedHorz(XInternAtom(display, "_NET_WM_STATE_MAXIMIZED_HORZ", False)),
        hidden(XInternAtom(display, "_NET_WM_STATE_HIDDEN", False)),
        type(XInternAtom(display, "_NET_WM_WINDOW_TYPE", False)),
        typeDesktop(XInternAtom(display, "_NET_WM_WINDOW_TYPE_DESKTOP", False)),
        typeDock(XInternAtom(display, "_NET_WM_WINDOW_TYPE_DOCK", False)) {}
  Atom supported, clientList, stacking, active, currentDesktop, desktop, state, fullscreen, maximizedVert,
      maximizedHorz, hidden, type, typeDesktop, typeDock;
};

namespace {

// A 32-bit property's items (Xlib hands them out as longs), or nothing.
std::optional<std::vector<unsigned long>> listOf(Display* display, Window window, Atom property, Atom type) {
  Atom actual = None;
  int format = 0;
  unsigned long count = 0;
  unsigned long after = 0;
  unsigned char* data = nullptr;
  if (XGetWindowProperty(display, window, property, 0, 4096, False, type, &actual, &format, &count, &after, &data) !=
          Success ||
      data == nullptr) {
    return std::nullopt;
  }
  std::optional<std::vector<unsigned long>> items;
  if (actual == type && format == 32) {
    // Xlib hands 32-bit items out in longs, sign-extended: 0xFFFFFFFF (every desktop) would
    // read as all ones otherwise.
    const auto* values = reinterpret_cast<const unsigned long*>(data);
    items.emplace();
    for (unsigned long i = 0; i < count; ++i) {
      items->push_back(values[i] & 0xFFFFFFFFUL);
    }
  }
  XFree(data);
  return items;
}

std::optional<unsigned long> valueOf(Display* display, Window window, Atom property, Atom type) {
  auto items = listOf(display, window, property, type);
  if (!items || items->empty()) {
    return std::nullopt;
  }
  return items->front();
}

bool has(const std::optional<std::vector<unsigned long>>& items, Atom atom) {
  return items && std::find(items->begin(), items->end(), atom) != items->end();
}

// What a person calls the program: its WM_CLASS class, else its instance, else the title.
std::string programOf(Display* display, Window window) {
  XClassHint hint{};
  std::string name;
  if (XGetClassHint(display, window, &hint) != 0) {
    if (hint.res_class != nullptr) {
      name = hint.res_class;
    } else if (hint.res_name != nullptr) {
      name = hint.res_name;
    }
    XFree(hint.res_name);
    XFree(hint.res_class);
  }
  if (name.empty()) {
    char* title = nullptr;
    if (XFetchName(display, window, &title) != 0 && title != nullptr) {
      name = title;
      XFree(title);
    }
  }
  return name.empty() ? std::string("another program") : name;
}

// The window manager's frame around a client (its child of the root): its edges are what
// covers the desktop, title bar and borders included.
Window frameOf(Display* display, Window root, Window window) {
  Window current = window;
  for (int depth = 0; depth < 16; ++depth) {
    Window rootReturn = None;
    Window parent = None;
    Window* children = nullptr;
    unsigned count = 0;
    if (XQueryTree(display, current, &rootReturn, &parent, &children, &count) == 0) {
      break;
    }
    if (children != nullptr) {
      XFree(children);
    }
    if (parent == root || parent == None) {
      return current;
    }
    current = parent;
  }
  return current;
}

}  // namespace

X11WindowList::X11WindowList(Display* display)
    : display_(display), root_(DefaultRootWindow(display)), atoms_(std::make_shared<Atoms>(display)) {
  XSelectInput(display_, root_, PropertyChangeMask | StructureNotifyMask | SubstructureNotifyMask);
}

bool X11WindowList::available() const {
  return listOf(display_, root_, atoms_->clientList, XA_WINDOW).has_value() ||
         listOf(display_, root_, atoms_->supported, XA_ATOM).has_value();
}

bool X11WindowList::supportsDesktopWindows() const {
  const auto supported = listOf(display_, root_, atoms_->supported, XA_ATOM);
  return has(supported, atoms_->typeDesktop) && has(supported, atoms_->clientList);
}

bool X11WindowList::concerns(const XEvent& event) {
  switch (event.type) {
    case PropertyNotify: {
      const Atom atom = event.xproperty.atom;
      if (event.xproperty.window == root_) {
        return atom == atoms_->clientList || atom == atoms_->stacking || atom == atoms_->active ||
               atom == atoms_->currentDesktop;
      }
      return atom == atoms_->state || atom == atoms_->desktop || atom == atoms_->type;
    }
    case ConfigureNotify:
    case MapNotify:
    case UnmapNotify:
    case DestroyNotify:
      return event.xany.window == root_ || watched_.contains(event.xany.window);
    default:
      return false;
  }
}

std::optional<DesktopWindows> X11WindowList::read(const std::set<Window>& ours, const std::vector<Monitor>& monitors) {
  auto clients = listOf(display_, root_, atoms_->stacking, XA_WINDOW);
  if (!clients) {
    clients = listOf(display_, root_, atoms_->clientList, XA_WINDOW);
  }
  if (!clients) {
    return std::nullopt;
  }
  const auto active = valueOf(display_, root_, atoms_->active, XA_WINDOW);
  const auto current = valueOf(display_, root_, atoms_->currentDesktop, XA_CARDINAL);
  DesktopWindows out;
  std::set<Window> seen;
  // Bottom to top: a desktop window below ours hides nothing; with ours unlisted (below the
  // window manager's reach, or the root itself) every one does.
  const bool oursListed = std::any_of(clients->begin(), clients->end(),
                                      [&](unsigned long client) { return ours.contains(static_cast<Window>(client)); });
  bool aboveOurs = !oursListed;
  for (const auto client : *clients) {
    const auto window = static_cast<Window>(client);
    seen.insert(window);
    if (!watched_.contains(window)) {
      // Its state and desktop change on the client itself; its place shows on the root's
      // substructure through the window manager's frame, and on the client when unframed.
      XSelectInput(display_, window, PropertyChangeMask | StructureNotifyMask);
      watched_.insert(window);
    }
    if (ours.contains(window)) {
      aboveOurs = true;
      continue;
    }
    XWindowAttributes attributes{};
    if (XGetWindowAttributes(display_, window, &attributes) == 0) {
      continue;  // gone meanwhile
    }
    const auto desktop = valueOf(display_, window, atoms_->desktop, XA_CARDINAL);
    if (current && desktop && *desktop != 0xFFFFFFFFUL && *desktop != *current) {
      continue;  // another workspace: out of sight
    }
    const auto state = listOf(display_, window, atoms_->state, XA_ATOM);
    const auto type = listOf(display_, window, atoms_->type, XA_ATOM);
    XWindowAttributes frame = attributes;
    if (const Window outer = frameOf(display_, root_, window); outer != window) {
      if (XGetWindowAttributes(display_, outer, &frame) == 0) {
        frame = attributes;
      }
    } else {
      // Unframed: its place is its own, in root coordinates already.
      Window child = None;
      XTranslateCoordinates(display_, window, root_, 0, 0, &frame.x, &frame.y, &child);
      frame.border_width = 0;
    }
    WindowSnapshot snapshot;
    snapshot.id = static_cast<std::int64_t>(window);
    snapshot.left = frame.x;
    snapshot.top = frame.y;
    snapshot.right = frame.x + frame.width + 2 * frame.border_width;
    snapshot.bottom = frame.y + frame.height + 2 * frame.border_width;
    const bool fullscreen = has(state, atoms_->fullscreen);
    snapshot.isForeground = active && *active == client;
    snapshot.isMaximized = !fullscreen && has(state, atoms_->maximizedVert) && has(state, atoms_->maximizedHorz);
    snapshot.isMinimized = has(state, atoms_->hidden);
    snapshot.isVisible = attributes.map_state == IsViewable;
    const bool desktopWindow = has(type, atoms_->typeDesktop);
    snapshot.isShell = desktopWindow || has(type, atoms_->typeDock);
    if (desktopWindow && snapshot.isVisible && aboveOurs) {
      // Another program's desktop (a file manager's icons) drawn over the monitors it fills.
      for (const auto& monitor : monitors) {
        if (snapshot.left <= monitor.x && snapshot.top <= monitor.y && snapshot.right >= monitor.x + monitor.width &&
            snapshot.bottom >= monitor.y + monitor.height) {
          out.coveredBy.emplace(monitor.id, programOf(display_, window));
        }
      }
    }
    out.windows.push_back(snapshot);
  }
  std::erase_if(watched_, [&](Window window) { return !seen.contains(window); });
  return out;
}

}  // namespace korvalen::host
