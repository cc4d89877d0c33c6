# The public headers: what is installed, under include/qxdict, and what must compile on its own.
set(QXDICT_PUBLIC_HEADERS
  dict/attrdict.h dict/avldict.h dict/avlldict.h dict/hashdeltable.h dict/hashdict.h dict/hashtable.h dict/idmap.h
  dict/qxcache.h dict/rbdict.h dict/version.h
  qxlib/array.h qxlib/channel.h qxlib/filemap.h qxlib/fingerprint.h qxlib/memory.h qxlib/message.h qxlib/misc.h
  qxlib/prime.h qxlib/sort.h qxlib/thread.h qxlib/types.h
  util/io.h util/io2.h)

# The C++ face, for C++ alone.
set(QXDICT_PUBLIC_CXX_HEADERS dict/qxdict.hpp)
