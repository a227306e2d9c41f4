#include "tools/mplsctl/StateViews.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <thread>

#include <fmt/format.h>

#include "Kel/EntityText.h"
#include "tools/mplsctl/Commands.h"
#include "types/Mpls/ClientLabelRequest.h"
#include "types/Mpls/MplsApiStatus.h"
#include "types/Mpls/MplsConfig.h"

namespace Mplsctl {

namespace {

// A value as JSON: numbers and booleans as themselves, the rest as its text form.
template <class V>
nlohmann::json valueJson(const V& v) {
  const std::string text = Kel::valueToStrep(v);
  if (text == "True" || text == "False") {
    return text == "True";
  }
  int64_t n = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (error == std::errc() && end == text.data() + text.size() && !text.empty()) {
    return n;
  }
  return text;
}

// A key as a JSON object's member name: a string key without its quotes.
template <class K>
std::string keyName(const K& k) {
  std::string text = Kel::valueToStrep(k);
  if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') &&
      text.back() == text.front()) {
    text = text.substr(1, text.size() - 2);
  }
  return text;
}

template <class E>
nlohmann::json entityJson(const E& e) {
  nlohmann::json out = nlohmann::json::object();
  Kel::forEachAttr<E>([&](auto a) {
    using A = decltype(a);
    const std::string name(A::name);
    if constexpr (A::kind == Kel::AttrKind::scalar) {
      out[name] = valueJson(A::get(e));
    } else {
      nlohmann::json coll = nlohmann::json::object();
      A::forEach(e, [&](const auto& k, const auto& v) {
        if constexpr (A::kind == Kel::AttrKind::set) {
          coll[keyName(k)] = true;
        } else if constexpr (A::kind == Kel::AttrKind::entityColl) {
          coll[keyName(k)] = entityJson(*v);
        } else {
          coll[keyName(k)] = valueJson(v);
        }
      });
      out[name] = std::move(coll);
    }
  });
  return out;
}

template <class E>
void entityLines(const E& e, const std::string& prefix, std::vector<std::string>& out) {
  Kel::forEachAttr<E>([&](auto a) {
    using A = decltype(a);
    const std::string name = prefix + std::string(A::name);
    if constexpr (A::kind == Kel::AttrKind::scalar) {
      out.push_back(name + ": " + Kel::valueToStrep(A::get(e)));
    } else {
      A::forEach(e, [&](const auto& k, const auto& v) {
        const std::string place = name + "[" + Kel::valueToStrep(k) + "]";
        if constexpr (A::kind == Kel::AttrKind::set) {
          out.push_back(place);
        } else if constexpr (A::kind == Kel::AttrKind::entityColl) {
          out.push_back(place);
          entityLines(*v, place + ".", out);
        } else {
          out.push_back(place + ": " + Kel::valueToStrep(v));
        }
      });
    }
  });
}

template <class E>
class TypedView final : public StateView {
 public:
  TypedView(Statehub::EntityManager& manager, const std::string& path, Kel::Ptr<E> replica)
      : path_(path), mount_(manager.mount<E>(path, std::move(replica))) {}
  Statehub::MountBase& mount() const override { return *mount_; }
  std::string text() const override { return Kel::entityText(*mount_->entity()); }
  nlohmann::json json() const override {
    return {{"path", path_}, {"type", std::string(E::kelTypeName)},
            {"attributes", entityJson(*mount_->entity())}};
  }
  std::vector<std::string> lines() const override {
    std::vector<std::string> out;
    entityLines(*mount_->entity(), "", out);
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  std::string path_;
  typename Statehub::Mount<E>::Ptr mount_;
};

using Maker = std::function<std::unique_ptr<StateView>(Statehub::EntityManager&, const std::string&)>;

// An entity that is the entry of a directory is named after the path's last component.
std::string lastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

template <class E>
std::pair<std::string, Maker> known(std::function<Kel::Ptr<E>(const std::string& path)> make) {
  return {std::string(E::kelTypeName), [make](Statehub::EntityManager& m, const std::string& path) {
            return std::make_unique<TypedView<E>>(m, path, make(path));
          }};
}

const std::map<std::string, Maker>& makers() {
  static const std::map<std::string, Maker> all{
      known<Mpls::Config>([](const std::string&) { return Mpls::configFactory(); }),
      known<Mpls::Api::Status>([](const std::string&) { return Mpls::Api::statusFactory(); }),
      known<Mpls::ClientLabelRequest>([](const std::string& path) {
        return Mpls::clientLabelRequestFactory(lastComponent(path));
      }),
  };
  return all;
}

}  // namespace

std::unique_ptr<StateView> stateView(Statehub::EntityManager& manager, const std::string& path,
                                     const std::string& typeName) {
  auto it = makers().find(typeName);
  return it == makers().end() ? nullptr : it->second(manager, path);
}

void awaitMount(Statehub::MountBase& mount, const std::string& what,
                std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (mount.processChanges(), mount.status() == Statehub::mountPending) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw CommandError(fmt::format("{} did not become readable within {:g} s", what,
                                     patience.count() / 1000.0));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (mount.status() == Statehub::mountFailed) {
    throw CommandError(mount.error());
  }
}

std::vector<std::string> stateViewTypes() {
  std::vector<std::string> out;
  for (const auto& [name, maker] : makers()) {
    out.push_back(name);
  }
  return out;
}

Statehub::EntityManager::Ptr managerOf(const std::string& statehub, Kel::EventLoop* loop) {
  try {
    return Kel::make<Statehub::EntityManager>(statehub, loop);
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
}

}  // namespace Mplsctl
