// Ready-made loaders and blades for the usual case.
#ifndef VOK_BLADELOADER_H
#define VOK_BLADELOADER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "vok/BladeStopWatcher.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

namespace vok {

// Loads a blade of type Blade (a ServiceBlade): the shell gets the name and the start mode, and
// each load makes a new Blade on the blade's thread, by make when given, else by Blade's default
// constructor; the unload destroys it. Owned by the application; it must outlive the shell.
//
//   vok::VokBladeLoader<MyBlade> loader("myblade");
template <typename Blade>
class VokBladeLoader : public VokBladeLoaderInterface {
  public:
    // A loader of blades called name, started as startMode says (kBladeStartModeAuto: at
    // start-up). make, when not empty, makes each blade.
    explicit VokBladeLoader(std::string name, int32_t startMode = kBladeStartModeAuto,
                            std::function<std::unique_ptr<Blade>()> make = nullptr)
        : name_(std::move(name)), startMode_(startMode), make_(std::move(make)) {}

    // The name given at construction.
    const std::string& GetBladeName() const override { return name_; }
    // The start mode given at construction.
    int32_t GetStartMode() const override { return startMode_; }
    // Makes the blade.
    void LoadBlade(const VokShellDaemonInfo&) override {
        if (make_) {
            blade_ = make_();
        } else if constexpr (std::is_default_constructible<Blade>::value) {
            blade_.reset(new Blade);
        } else {
            throw std::bad_function_call();
        }
    }
    // Destroys the blade.
    void UnloadBlade() override { blade_.reset(); }
    // The blade LoadBlade made.
    ServiceBlade* GetServiceBlade() override { return blade_.get(); }

  private:
    const std::string name_;
    const int32_t startMode_;
    std::function<std::unique_ptr<Blade>()> make_;
    std::unique_ptr<Blade> blade_;
};

// A blade that runs a dispatcher until the shell stops it, with a Work object alive for exactly
// that time: Run makes a RuntimeDispatcher on the blade's thread, a BladeStopWatcher on it, then
// Work(environment, dispatcher), runs the loop until the stop event, and destroys Work before the
// dispatcher. Work sets up its timers, ports and services in its constructor and gives them back
// in its destructor (members do it by themselves), all on the blade's thread.
//
//   struct Sampler { Sampler(vok::ServiceBladeEnvironment& env, vok::RuntimeDispatcher& d); };
//   vok::VokBladeLoader<vok::VokLoopBlade<Sampler>> sampler("sampler");
template <typename Work>
class VokLoopBlade : public ServiceBlade {
  public:
    // See the class comment.
    void Run(ServiceBladeEnvironment* environment) override {
        RuntimeDispatcher dispatcher;
        BladeStopWatcher stopWatcher(environment, dispatcher);
        Work work(*environment, dispatcher);
        dispatcher.Run();
    }
};

}  // namespace vok

#endif  // VOK_BLADELOADER_H
