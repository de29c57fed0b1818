// Load-time initialisation of the library.
//
// GLib 2.32 and later initialise their thread system on their own, so the constructor has
// nothing to call; it stays the one place where load-time set-up belongs, and every user may
// create Mutex, Event and Thread objects without preparing GLib first.
namespace vok {
namespace {

__attribute__((constructor)) void VokLibraryLoad() {}
__attribute__((destructor)) void VokLibraryUnload() {}

}  // namespace
}  // namespace vok
