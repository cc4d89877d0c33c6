// The graph from which a perfect-hash dictionary is made, and the order in which it comes apart.
//
// Every key is an edge that joins three vertices. An edge that is the only one left at some vertex can be removed; when
// that removes them all, one after the other, values can be given to the vertices in the reverse order, each edge
// settling the one that is its own, so that the values at an edge's vertices combine to whatever its key shall give.
//
//   g_node    [ -:3 | edge 1: u v w | edge 2: u v w | ... | edge n ]      edges and vertices are numbered from 1
//   g_vertex  [ - | vertex 1: degree, edges | ... | vertex m ]            edges: all edges still there, exclusive-or'ed
//   g_edge    [ removed first | ... | removed last ]                      g_edge_top of them
//
// Degree and exclusive-or are all that is ever asked of a vertex: whether one edge is left there, and which. The order
// of removal is part of the image format, since it decides which vertex gets which value: vertices in ascending order,
// and behind each removed edge everything that it sets free, depth first, on a stack of our own (chains run to
// millions).

#ifndef DICT_HASHDICT_GRAPH_H
#define DICT_HASHDICT_GRAPH_H

#include "dict/hashdict_internal.h"

namespace hashdict {

// What is left at a vertex.
struct Incidence {
  Id degree;  // number of edges
  Id edges;   // their exclusive-or: the edge itself when there is one
};

// An edge whose vertices are still to be looked at, from position s_status on; at status 0 it is still to be removed.
struct State {
  Id s_edge;
  Id s_vertex;  // where it was found alone
  UByte s_status;
};

struct Graph {
  Id g_nedges;
  Id g_size;            // vertices
  Triple* g_node;       // by edge; entry 0 unused
  Incidence* g_vertex;  // by vertex; entry 0 collects keys that have no vertices
  ULong* g_status;      // while removing, bit e: edge e is removed; while assigning, bit v: vertex v has its value
  Id g_edge_top;
  Id* g_edge;
  Id g_state_allocated;
  Id g_state_top;
  State* g_state;
};

// A graph of `size` vertices for at most as many edges.
Graph* GraphNew(Id nedges, Id size);
void GraphDelete(Graph* graph);

// Empties the graph for another attempt; g_node stays.
void GraphClear(Graph* graph);

// Puts an edge, whose vertices are in g_node, on their lists.
void GraphAddEdge(Graph* graph, Id e);

// Has the processor fetch what GraphAddEdge will touch.
void GraphPrefetchEdge(const Graph& graph, Id e);

// Removes what can be removed, into g_edge; true when that is every edge.
bool GraphPeel(Graph* graph);

// Removes edge e, the only one left at vertex v, and everything that this sets free.
void DeleteAllEdges(Graph* graph, Id v, Id e);

// Gives the vertices values such that those of each key's vertices combine to val(dict, key), or to the key's number.
// Empties g_edge.
void GraphAssign(Graph* graph, HashDict* hdict, void* dict, DictValFun val);

}  // namespace hashdict

#endif
