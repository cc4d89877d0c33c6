// Taking the graph of a perfect-hash dictionary apart, and giving its vertices their values.
//
// Nearly every access here misses the caches, so each loop looks some elements ahead and has the processor fetch what
// it will find there.

#include "dict/hashdict_graph.h"

namespace hashdict {
namespace {

constexpr Id kFirstStates = 1024;
constexpr Id kFar = 24;   // elements ahead: fetch an edge's vertex numbers
constexpr Id kNear = 12;  // elements ahead: these are there, fetch what the vertices hold

bool StatusGet(const Graph* graph, Id i) { return (graph->g_status[i >> 6] >> (i & 63) & 1) != 0; }
void StatusSet(Graph* graph, Id i) { graph->g_status[i >> 6] |= ULong{1} << (i & 63); }

// Bit 0 stays set: no edge, and no vertex, counts as done.
void StatusClear(Graph* graph, Id last) {
  std::memset(graph->g_status, 0, ((ULong{last} >> 6) + 1) * sizeof(ULong));
  StatusSet(graph, 0);
}

void StatePush(Graph* graph, State state) {
  if (graph->g_state_top == graph->g_state_allocated) {
    graph->g_state_allocated *= 2;
    graph->g_state =
        static_cast<State*>(Allocate_(graph->g_state_allocated * sizeof(State), graph->g_state, kModule, __LINE__));
  }
  graph->g_state[graph->g_state_top++] = state;
}

State StatePop(Graph* graph) { return graph->g_state[--graph->g_state_top]; }

void PushEdge(Graph* graph, Id e) { graph->g_edge[graph->g_edge_top++] = e; }

// The only edge left at vertex u; 0 when there is none, or more than one.
Id Singleton(const Graph* graph, Id u) {
  const Incidence& at = graph->g_vertex[u];
  return at.degree == 1 ? at.edges : 0;
}

void DeleteEdge(Graph* graph, Id u, Id e) {
  Incidence& at = graph->g_vertex[u];
  at.degree--;
  at.edges ^= e;
  if (at.degree == 1) __builtin_prefetch(&graph->g_node[at.edges]);
}

// Far ahead of vertex v: the edge that will be removed there, if none before takes it along. Nearer: its vertices.
void PrefetchPeel(const Graph* graph, Id v) {
  if (graph->g_size - v < kFar) return;
  const Id far = Singleton(graph, v + kFar);
  if (far != 0) __builtin_prefetch(&graph->g_node[far]);
  const Id near = Singleton(graph, v + kNear);
  if (near != 0) GraphPrefetchEdge(*graph, near);
}

}  // namespace

Graph* GraphNew(Id nedges, Id size) {
  auto* graph = static_cast<Graph*>(Allocate_(sizeof(Graph), nullptr, kModule, __LINE__));
  *graph = Graph{};
  graph->g_nedges = nedges;
  graph->g_size = size;
  graph->g_node = static_cast<Triple*>(ArrayNew(ULong{nedges} * 3 + 3, ~Id{0}, nullptr, nullptr));
  graph->g_vertex = static_cast<Incidence*>(ArrayNew(ULong{size} + 1, ~ULong{0}, nullptr, nullptr));
  graph->g_status = static_cast<ULong*>(ArrayNew(ULong{size} + 1, 1, nullptr, nullptr));
  graph->g_edge = static_cast<Id*>(ArrayNew(nedges, ~Id{0}, nullptr, nullptr));
  graph->g_state_allocated = kFirstStates;
  graph->g_state = static_cast<State*>(Allocate_(kFirstStates * sizeof(State), nullptr, kModule, __LINE__));
  return graph;
}

void GraphDelete(Graph* graph) {
  AnonArrayFree_(graph->g_node, kModule, __LINE__);
  if (graph->g_vertex != nullptr) AnonArrayFree_(graph->g_vertex, kModule, __LINE__);
  AnonArrayFree_(graph->g_status, kModule, __LINE__);
  if (graph->g_edge != nullptr) AnonArrayFree_(graph->g_edge, kModule, __LINE__);
  UnAllocate_(graph->g_state, kModule, __LINE__);
  UnAllocate_(graph, kModule, __LINE__);
}

void GraphClear(Graph* graph) {
  std::memset(graph->g_vertex, 0, (size_t{graph->g_size} + 1) * sizeof(Incidence));
  StatusClear(graph, graph->g_size);
  graph->g_edge_top = 0;
  graph->g_state_top = 0;
}

void GraphAddEdge(Graph* graph, Id e) {
  for (const Id u : graph->g_node[e].v) {
    graph->g_vertex[u].degree++;
    graph->g_vertex[u].edges ^= e;
  }
}

void GraphPrefetchEdge(const Graph& graph, Id e) {
  for (const Id u : graph.g_node[e].v) __builtin_prefetch(&graph.g_vertex[u], 1);
}

bool GraphPeel(Graph* graph) {
  for (Id v = 1; v <= graph->g_size; v++) {
    PrefetchPeel(graph, v);
    const Id e = Singleton(graph, v);
    if (!StatusGet(graph, e)) DeleteAllEdges(graph, v, e);
  }
  return graph->g_edge_top == graph->g_nedges;
}

void DeleteAllEdges(Graph* graph, Id v, Id e) {
  QX_ASSERT(graph->g_state_top == 0);
  StatePush(graph, {e, v, 0});
  while (graph->g_state_top > 0) {
    const State state = StatePop(graph);
    e = state.s_edge;
    if (state.s_status == 0) {
      QX_ASSERT(StatusGet(graph, e) == 0);
      StatusSet(graph, e);
      PushEdge(graph, e);
      for (const Id u : graph->g_node[e].v) DeleteEdge(graph, u, e);
    }
    for (UByte k = state.s_status; k < 3; k++) {
      const Id u = graph->g_node[e].v[k];
      if (u == state.s_vertex) continue;
      const Id freed = Singleton(graph, u);
      if (StatusGet(graph, freed)) continue;
      // What this one frees goes first; then the vertices of e that are left.
      if (k < 2) StatePush(graph, {e, state.s_vertex, static_cast<UByte>(k + 1)});
      StatePush(graph, {freed, u, 0});
      break;
    }
  }
}

void GraphAssign(Graph* graph, HashDict* hdict, void* dict, DictValFun val) {
  StatusClear(graph, graph->g_size);
  // Peak memory: the lists are done with before the first function value is touched.
  AnonArrayFree_(graph->g_vertex, kModule, __LINE__);
  graph->g_vertex = nullptr;
  const UInt width = hdict->h_nbits;
  while (graph->g_edge_top > 0) {
    const Id top = --graph->g_edge_top;
    if (top >= kFar) {
      __builtin_prefetch(&graph->g_node[graph->g_edge[top - kFar]]);
      for (const Id u : graph->g_node[graph->g_edge[top - kNear]].v) {
        __builtin_prefetch(&hdict->h_fun[ULong{u} * width >> 6], 1);
      }
    }
    const Id e = graph->g_edge[top];
    Id value = val != nullptr ? val(dict, e - 1) : e - 1;
    Id chosen = 0;
    for (const Id u : graph->g_node[e].v) {
      if (StatusGet(graph, u)) {
        value ^= FunGet(*hdict, u);
      } else {
        PackedSet(hdict->h_fun, u, width, 0);
        StatusSet(graph, u);
        chosen = u;
      }
    }
    // An edge was alone at some vertex when it was removed, so no later one, all assigned by now, has set that one.
    PackedSet(hdict->h_fun, chosen, width, value);
  }
}

}  // namespace hashdict
