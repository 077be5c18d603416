// The multiplexer's view of a process: what both process families hand to it.
// Not part of any API.
#ifndef QVE_HOST_SRC_IOMUX_H_
#define QVE_HOST_SRC_IOMUX_H_

#include <cstdint>
#include <vector>

#include "qve/host.h"

namespace qvehost::internal {

class StreamSource;

// Something that keeps pointers to stream sources and must hear when one of
// them goes away.
class SourceWatcher {
 public:
  // source is being destroyed: drop every reference to it.
  virtual void Forget(const StreamSource* source) = 0;

 protected:
  ~SourceWatcher() = default;
};

// The standard output and standard error of one started command, as a
// multiplexer watches them. Kinds are QVE_STREAM_STDOUT and QVE_STREAM_STDERR.
class StreamSource {
 public:
  StreamSource() = default;
  StreamSource(const StreamSource&) = delete;
  StreamSource& operator=(const StreamSource&) = delete;

  // True when the source has, or had, a pipe for kind.
  virtual bool HasStream(uint32_t kind) const = 0;
  // True when a read of kind returns at once: bytes drained earlier are held,
  // or the stream has ended. Such a stream is not polled.
  virtual bool ReadyWithoutWait(uint32_t kind) const = 0;
  // The descriptor to poll for kind; -1 when there is none.
  virtual int PollFd(uint32_t kind) const = 0;

  void AddWatcher(SourceWatcher* watcher);
  void RemoveWatcher(SourceWatcher* watcher);

 protected:
  // Tells every watcher, so that no multiplexer keeps a dangling entry.
  ~StreamSource();

 private:
  std::vector<SourceWatcher*> watchers_;
};

// Registers the output streams of mask (bits QVE_STREAM_STDOUT and
// QVE_STREAM_STDERR) of source; channel records of those streams carry
// handle (the family's own process pointer). 0 when registered; non-zero for
// a null argument, a mask without output bits or a stream the source never
// had. Registering a stream again is harmless.
int32_t MuxAddSource(sqvejcx_IOMuxor* mux, StreamSource* source, void* handle,
                     int32_t mask);
// Stops watching one stream of source; 0 when it was registered.
int32_t MuxRemoveSource(sqvejcx_IOMuxor* mux, StreamSource* source,
                        int32_t kind);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_IOMUX_H_
