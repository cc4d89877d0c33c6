// Taking the graph of a perfect-hash dictionary apart, and giving its vertices their values.
//
// Nearly every access here misses the caches, so each loop looks some elements ahead and has the processor fetch what
// it will find there. Nearly every question is answered at random, so answers are chosen by arithmetic where a branch
// would be guessed wrong.

#include "dict/hashdict_graph.h"

#include <utility>

namespace hashdict {
namespace {

constexpr Id kFirstStates = 1024;
constexpr Id kFar = 24;   // elements ahead: fetch the vertex where an edge was alone
constexpr Id kNear = 12;  // elements ahead: it is there, fetch what its edge's vertices hold
constexpr Id kRing = 16;  // vertices ahead of the one where peeling goes on; half as far, their neighbours are there

// An Incidence as a whole: what one edge is there, or all of them.
using Lanes = UInt __attribute__((vector_size(16)));

constexpr Id kUpperBit = 0x80000000;
constexpr Lanes kAtPosition[3] = {{0, 0, 0, 0}, {0, 0, kUpperBit, 0}, {0, kUpperBit, 0, 0}};
constexpr Lanes kOneEdge = {1, 0, 0, 0};
constexpr UInt kBehind[3] = {1, 2, 0};  // positions, going round

// Edge e as its vertex at `position` sees it.
Lanes Seen(Id e, UInt position, Id next, Id after) { return Lanes{0, e, next, after} ^ kAtPosition[position]; }

void Attach(Incidence* at, Lanes seen) {
  const Lanes now = (Load<Lanes>(at) ^ seen) + kOneEdge;
  std::memcpy(at, &now, sizeof now);
}

void Detach(Incidence* at, Lanes seen) {
  const Lanes now = (Load<Lanes>(at) ^ seen) - kOneEdge;
  std::memcpy(at, &now, sizeof now);
}

// The vertices of the edge that is, or was, alone at v.
Triple EdgeAt(const Graph& graph, Id v) {
  const Incidence& at = graph.g_vertex[v];
  const UInt position = at.Position();
  const UInt behind = kBehind[position];
  Triple vertices;
  vertices.v[position] = v;
  vertices.v[behind] = at.Next();
  vertices.v[kBehind[behind]] = at.after;
  return vertices;
}

bool IsAlone(const Graph* graph, Id v) { return graph->g_vertex[v].degree == 1; }

// Has the processor fetch vertex v; otherwise one that it has anyway.
void PrefetchIf(const Graph* graph, bool condition, Id v) {
  __builtin_prefetch(&graph->g_vertex[condition ? v : 0], 1);
}

// One step ahead of a removal at v: the other vertices of its edge.
void PrefetchEdgeAt(const Graph* graph, Id v) {
  const Incidence& at = graph->g_vertex[v];
  PrefetchIf(graph, at.degree == 1, at.Next());
  PrefetchIf(graph, at.degree == 1, at.after);
}

// Two steps ahead: where one edge more is left at one of those, what that one joins.
void PrefetchFreedFrom(const Graph* graph, Id v) {
  const Incidence& at = graph->g_vertex[v];
  if (at.degree != 1) return;
  const Id next = at.Next(), after = at.after;
  const Incidence& at_next = graph->g_vertex[next];
  PrefetchIf(graph, at_next.degree == 2, at_next.Next() ^ after);
  PrefetchIf(graph, at_next.degree == 2, at_next.after ^ v);
  const Incidence& at_after = graph->g_vertex[after];
  PrefetchIf(graph, at_after.degree == 2, at_after.Next() ^ v);
  PrefetchIf(graph, at_after.degree == 2, at_after.after ^ next);
}

void StateReserve(Graph* graph) {
  if (graph->g_state_top < graph->g_state_allocated) [[likely]]
    return;
  graph->g_state_allocated *= 2;
  graph->g_state =
      static_cast<Id*>(Allocate_(size_t{graph->g_state_allocated} * sizeof(Id), graph->g_state, kModule, __LINE__));
}

bool HasValue(const Graph* graph, Id v) { return (graph->g_status[v >> 6] >> (v & 63) & 1) != 0; }
void SetHasValue(Graph* graph, Id v) { graph->g_status[v >> 6] |= ULong{1} << (v & 63); }

}  // namespace

Graph* GraphNew(Id nedges, Id size) {
  auto* graph = static_cast<Graph*>(Allocate_(sizeof(Graph), nullptr, kModule, __LINE__));
  *graph = Graph{};
  graph->g_nedges = nedges;
  graph->g_size = size;
  graph->g_vertex = static_cast<Incidence*>(ArrayNew((ULong{size} + 1) * 2, ~ULong{0}, nullptr, nullptr));
  graph->g_status = static_cast<ULong*>(ArrayNew(ULong{size} + 1, 1, nullptr, nullptr));
  graph->g_peeled = static_cast<Id*>(ArrayNew(nedges, ~Id{0}, nullptr, nullptr));
  graph->g_state_allocated = kFirstStates;
  graph->g_state = static_cast<Id*>(Allocate_(kFirstStates * sizeof(Id), nullptr, kModule, __LINE__));
  return graph;
}

void GraphDelete(Graph* graph) {
  AnonArrayFree_(graph->g_vertex, kModule, __LINE__);
  AnonArrayFree_(graph->g_status, kModule, __LINE__);
  if (graph->g_peeled != nullptr) AnonArrayFree_(graph->g_peeled, kModule, __LINE__);
  UnAllocate_(graph->g_state, kModule, __LINE__);
  UnAllocate_(graph, kModule, __LINE__);
}

void GraphClear(Graph* graph) {
  std::memset(graph->g_vertex, 0, (size_t{graph->g_size} + 1) * sizeof(Incidence));
  graph->g_peeled_top = 0;
  graph->g_state_top = 0;
}

void GraphAddEdge(Graph* graph, Id e, const Triple& vertices) {
  const auto [u, v, w] = vertices.v;
  Attach(&graph->g_vertex[u], Seen(e, 0, v, w));
  Attach(&graph->g_vertex[v], Seen(e, 1, w, u));
  Attach(&graph->g_vertex[w], Seen(e, 2, u, v));
}

void GraphPrefetchEdge(const Graph& graph, const Triple& vertices) {
  for (const Id u : vertices.v) __builtin_prefetch(&graph.g_vertex[u], 1);
}

// Only vertices where an edge is alone from the beginning start a removal: where one comes to be alone later, it goes
// with the removal that set it free. So the next few starts are known ahead. Vertex 0, which fills the ring up, has
// each of its edges three times and is never one of them.
bool GraphPeel(Graph* graph) {
  Id ring[kRing] = {};
  Id seen = 0;
  const auto take = [&](Id v) {
    const Id turn = std::exchange(ring[seen % kRing], v);
    PrefetchFreedFrom(graph, ring[(seen + kRing / 2) % kRing]);
    seen++;
    if (IsAlone(graph, turn)) DeleteAllEdges(graph, turn);
  };
  for (Id v = 1; v <= graph->g_size; v++) {
    if (!IsAlone(graph, v)) continue;
    PrefetchEdgeAt(graph, v);
    take(v);
  }
  for (Id i = 0; i < kRing; i++) take(0);
  return graph->g_peeled_top == graph->g_nedges;
}

void DeleteAllEdges(Graph* graph, Id v) {
  QX_ASSERT(graph->g_state_top == 0);
  for (;;) {
    const Incidence at = graph->g_vertex[v];
    // The edge that is left here was not removed yet.
    QX_ASSERT_TEXT(at.degree == 1, "StatusGet(graph, e) == 0");
    graph->g_peeled[graph->g_peeled_top++] = v;
    graph->g_vertex[v].degree = 0;
    const Id e = at.Edge(), next = at.Next(), after = at.after;
    const UInt position = at.Position(), behind = kBehind[position];
    Detach(&graph->g_vertex[next], Seen(e, behind, after, v));
    Detach(&graph->g_vertex[after], Seen(e, kBehind[behind], v, next));

    // In the order of their positions; what the first one sets free goes before the second.
    const Id first = position == 1 ? after : next;
    const Id second = position == 1 ? next : after;
    PrefetchEdgeAt(graph, second);
    const bool first_alone = IsAlone(graph, first);
    StateReserve(graph);
    graph->g_state[graph->g_state_top] = second;
    graph->g_state_top += first_alone ? 1 : 0;
    v = first_alone ? first : second;
    while (!IsAlone(graph, v)) {
      if (graph->g_state_top == 0) return;
      v = graph->g_state[--graph->g_state_top];
    }
  }
}

void GraphAssign(Graph* graph, HashDict* hdict, void* dict, DictValFun val) {
  std::memset(graph->g_status, 0, ((ULong{graph->g_size} >> 6) + 1) * sizeof(ULong));
  std::memset(hdict->h_fun, 0, hdict->h_fun_size);
  const UInt width = hdict->h_nbits;
  while (graph->g_peeled_top > 0) {
    const Id top = --graph->g_peeled_top;
    if (top >= kFar) {
      __builtin_prefetch(&graph->g_vertex[graph->g_peeled[top - kFar]]);
      for (const Id u : EdgeAt(*graph, graph->g_peeled[top - kNear]).v) {
        __builtin_prefetch(&hdict->h_fun[ULong{u} * width >> 6], 1);
      }
    }
    const Id v = graph->g_peeled[top];
    const Id key = graph->g_vertex[v].Edge() - 1;
    Id value = val != nullptr ? val(dict, key) : key;
    Id chosen = 0;
    for (const Id u : EdgeAt(*graph, v).v) {
      value ^= FunGet(*hdict, u);  // 0 as long as it has no value
      chosen = HasValue(graph, u) ? chosen : u;
      SetHasValue(graph, u);
    }
    // No edge that was removed later, all of them assigned by now, has vertex v: so there is one to be chosen.
    PackedSet(hdict->h_fun, chosen, width, value);
  }
}

}  // namespace hashdict
