// The graph from which a perfect-hash dictionary is made, and the order in which it comes apart.
//
// Every key is an edge that joins three vertices. An edge that is the only one left at some vertex can be removed; when
// that removes them all, one after the other, values can be given to the vertices in the reverse order, each edge
// settling the one that is its own, so that the values at an edge's vertices combine to whatever its key shall give.
//
//   g_vertex  [ - | vertex 1 | vertex 2 | ... | vertex m ]      16 bytes each; edges and vertices are numbered from 1
//   g_peeled  [ removed first | ... | removed last ]            g_peeled_top of them, each by the vertex where it was
//   alone
//
// No edge is kept by itself. A vertex holds how many edges are left there, and the exclusive-or of what each of them is
// as seen from there: its number, its other two vertices, and which of its three this one is. That is all that is ever
// asked: when one edge is left, the exclusive-or is that edge, and when two are left and one is known, it is the other
// after the known one is taken out:
//
//   edge 5: vertices 1 2 3,  edge 8: vertices 4 2 9      vertex 2 holds:  degree 2,  edge 5^8,  next 3^9,  after 1^4
//   seen from 1, edge 5 has next 2 and after 3: so       vertex 2 without it:       edge 8,    next 9,    after 4
//
// A vertex keeps the edge that was removed there, so that
// values can be assigned from g_vertex alone. (The same in: D. Belazzougui, P. Boldi, G. Ottaviano, R. Venturini,
// S. Vigna, Cache-Oblivious Peeling of Random Hypergraphs, 2014.)
//
// The order of removal is part of the image format, since it decides which vertex gets which value: vertices in
// ascending order, and behind each removed edge everything that it sets free, depth first, on a stack of our own
// (chains run to millions).

#ifndef DICT_HASHDICT_GRAPH_H
#define DICT_HASHDICT_GRAPH_H

#include "dict/hashdict_internal.h"

namespace hashdict {

// What is left at a vertex: the number of edges, and the exclusive-or of them. An edge that has this vertex at position
// k of 0, 1, 2 counts here with its vertices at the positions behind, going round: k + 1 and k + 2.
struct Incidence {
  Id degree;
  Id edge;   // upper bit: the edge has this vertex at position 2
  Id next;   // upper bit: at position 1
  Id after;  // the vertex behind the next

  UInt Position() const { return (edge >> 31 << 1) | next >> 31; }
  Id Edge() const { return edge & kLowBits; }
  Id Next() const { return next & kLowBits; }

 private:
  static constexpr Id kLowBits = 0x7FFFFFFF;
};

struct Graph {
  Id g_nedges;
  Id g_size;            // vertices
  Incidence* g_vertex;  // by vertex; entry 0 collects keys that have no vertices
  ULong* g_status;      // while assigning, bit v: vertex v has its value
  Id g_peeled_top;
  Id* g_peeled;
  Id g_state_allocated;
  Id g_state_top;
  Id* g_state;  // vertices that are still to be looked at, the next one on top
};

// A graph of `size` vertices, without edges, for at most as many edges.
Graph* GraphNew(Id nedges, Id size);
void GraphDelete(Graph* graph);

// Empties the graph for another attempt.
void GraphClear(Graph* graph);

// Adds edge e.
void GraphAddEdge(Graph* graph, Id e, const Triple& vertices);

// Has the processor fetch what GraphAddEdge will touch.
void GraphPrefetchEdge(const Graph& graph, const Triple& vertices);

// Removes what can be removed, into g_peeled; true when that is every edge.
bool GraphPeel(Graph* graph);

// Removes the only edge left at vertex v, and everything that this sets free.
void DeleteAllEdges(Graph* graph, Id v);

// Gives the vertices values such that those of each key's vertices combine to val(dict, key), or to the key's number.
// Empties g_peeled.
void GraphAssign(Graph* graph, HashDict* hdict, void* dict, DictValFun val);

}  // namespace hashdict

#endif
