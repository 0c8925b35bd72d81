#include "platform/posix/pipe_address.h"

#include "frame/md5.h"
#include "platform/pipes.h"

#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>

namespace TQ::platform {
namespace {

constexpr std::size_t NAME_OFFSET = offsetof(sockaddr_un, sun_path) + 1;
constexpr std::size_t MAX_ABSTRACT_NAME = sizeof(sockaddr_un::sun_path) - 1;

PipeAddress AbstractAddress(const std::string& name) {
  PipeAddress address;
  address.bytes.sun_family = AF_UNIX;
  std::memcpy(address.bytes.sun_path + 1, name.data(), name.size());
  address.length = static_cast<socklen_t>(NAME_OFFSET + name.size());
  return address;
}

std::string HexDigest(const std::string& text) {
  constexpr const char* DIGITS = "0123456789abcdef";
  detail::Md5 md5;
  md5.Update(text.data(), text.size());
  std::string hex;
  for (const uint8_t byte : md5.Finish()) {
    hex += DIGITS[byte >> 4];
    hex += DIGITS[byte & 15];
  }
  return hex;
}

using AddressQuery = int (*)(int, sockaddr*, socklen_t*);

std::optional<PipeAddress> Ask(AddressQuery query, int socket) {
  PipeAddress address;
  address.length = sizeof address.bytes;
  if (query(socket, address.Get(), &address.length) != 0) return std::nullopt;
  return address;
}

PipeAddress CompanionOf(const PipeAddress& first) {
  return AbstractAddress("tq.peer:" + std::string(first.Name()));
}

}  // namespace

std::string_view PipeAddress::Name() const {
  return length > NAME_OFFSET ? std::string_view(bytes.sun_path + 1, length - NAME_OFFSET)
                              : std::string_view();
}

PipeAddress AddressOfPipe(const std::string& path) {
  const std::size_t begin = path.find_first_not_of('\\', std::strlen(PIPE_PREFIX));
  const std::string key = begin == std::string::npos ? std::string() : path.substr(begin);
  const std::string name = "tq.pipe:" + key;
  return AbstractAddress(name.size() <= MAX_ABSTRACT_NAME ? name : "tq.pipe#" + HexDigest(key));
}

bool BindAsPeer(int socket, int first) {
  if (first == NO_DESCRIPTOR) {
    PipeAddress chosenBySystem;
    chosenBySystem.bytes.sun_family = AF_UNIX;
    return ::bind(socket, chosenBySystem.Get(), sizeof(sa_family_t)) == 0;
  }
  const auto firstAddress = Ask(::getsockname, first);
  if (!firstAddress) return false;
  const PipeAddress own = CompanionOf(*firstAddress);
  return ::bind(socket, own.Get(), own.length) == 0;
}

bool IsCompanionOf(int second, int first) {
  const auto firstPeer = Ask(::getpeername, first);
  const auto secondPeer = Ask(::getpeername, second);
  return firstPeer && secondPeer && !firstPeer->Name().empty() &&
         secondPeer->Name() == CompanionOf(*firstPeer).Name();
}

bool MayTalkTo(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == ::geteuid() || peer.uid == 0;
}

}  // namespace TQ::platform
