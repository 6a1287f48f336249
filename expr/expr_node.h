// Parsed expression trees: ExprNode records from a fixed pool kept on a free list.
//
// A pool holds the nodes of one kept tree (and its format node): each evaluation request and each
// breakpoint condition owns one, so no pool is shared between trees or between threads. A pool is
// never grown: a parse that needs more than kExprPoolCapacity nodes fails cleanly with its own
// failure (kExprParseOutOfNodes) and returns what it took. Every node consumes at least one token
// and every token at least one character, and the engine refuses texts of 256 characters or more,
// so 256 nodes hold any text it accepts.
#pragma once
#include "base/types.h"

enum { kExprPoolCapacity = 256 };

enum ExprNodeKind : u32 {
  kExprNodeFree = 0,        // on the pool's free list
  kExprNodeCountPrefix = 1,       // {N}expr
  kExprNodeBinary = 2,
  kExprNodeUnary = 3,
  kExprNodeSizeofType = 4,  // sizeof(type)
  kExprNodeSizeofExpr = 5,  // sizeof expr
  kExprNodeCast = 6,
  kExprNodeIndex = 7,
  kExprNodeIdentifier = 8,
  kExprNodeParen = 9,
  kExprNodeInteger = 10,
  kExprNodeCharacter = 11,
  kExprNodeFloating = 12,
  kExprNodeMember = 13,
  kExprNodeFormat = 14,
};

// Keywords seen in a type name, as bits; "long" is counted instead, for "long long".
enum ExprTypeKeyword : u32 {
  kExprTypeKeywordConst = 1u << 0,
  kExprTypeKeywordVoid = 1u << 1,
  kExprTypeKeywordChar = 1u << 2,
  kExprTypeKeywordShort = 1u << 3,
  kExprTypeKeywordInt = 1u << 4,
  kExprTypeKeywordLong = 1u << 5,  // at least one "long"; long_count says how many
  kExprTypeKeywordFloat = 1u << 6,
  kExprTypeKeywordDouble = 1u << 7,
  kExprTypeKeywordSigned = 1u << 8,
  kExprTypeKeywordUnsigned = 1u << 9,
  kExprTypeKeywordStruct = 1u << 10,
  kExprTypeKeywordUnion = 1u << 11,
  kExprTypeKeywordEnum = 1u << 12,
};

// The type named by a cast or sizeof(type), as written: nothing is looked up while parsing.
// "const unsigned long long **" gives keywords Const|Unsigned|Long, long_count 2, no name,
// pointer_depth 2; "ns::Foo * const *" gives name "ns::Foo", pointer_depth 2, const_pointers 1.
struct ExprTypeDesc {
  u32 keywords;         // ExprTypeKeyword bits
  u32 long_count;       // how many "long" keywords
  const char *name;     // the one non-keyword identifier (possibly ::-qualified), or null
  u32 name_length;
  u32 name_hash;        // FNV-1a of the name, as for identifiers
  u32 pointer_depth;    // number of '*'
  u32 const_pointers;   // bit i: the (i+1)-th '*' is followed by "const" (first 32 levels only)
  const char *text;     // the whole type text as typed, from its first to its last token
  u32 text_length;
};

struct ExprNode {
  u32 kind;  // ExprNodeKind; first, so that the evaluator can switch on it
  union {
    ExprNode *next_free;  // kExprNodeFree
    struct {
      u64 count;          // '*' gives 999999
      ExprNode *child;
      bool skipped_caret; // "{^N}": the caret is accepted and remembered
    } count;
    struct {
      ExprNode *left;
      u32 op;             // ExprTokenKind of the operator
      ExprNode *right;
    } binary;
    struct {
      u32 op;             // kExprTokenStar, _Plus, _Minus, _Tilde, _Bang or _Amp
      ExprNode *operand;
    } unary;
    struct {
      ExprTypeDesc type;
    } sizeof_type;
    struct {
      ExprNode *operand;
    } sizeof_expr;
    struct {
      ExprTypeDesc type;
      ExprNode *operand;
    } cast;
    struct {
      ExprNode *base;
      ExprNode *index;
    } index;
    struct {
      const char *text;   // points into the expression text, not NUL-terminated
      u32 length;
      u32 hash;
      u64 evaluator_data[3];  // zero after parsing; the evaluator's own (resolution cache)
    } identifier;
    struct {
      ExprNode *child;
    } paren;
    struct {
      u32 type;           // 0x74 (value fits 31 bits, kept as 32) or 0x77 (all 64 bits)
      u64 value;
    } integer;
    struct {
      u8 value;
    } character;
    struct {
      f64 value;          // a float's value, widened
      u32 type;           // 0x40 float or 0x41 double
    } floating;
    struct {
      u32 op;             // kExprTokenDot or kExprTokenArrow
      ExprNode *object;
      const char *name;   // points into the expression text
      u32 name_length;
    } member;
    struct {
      s32 specifier;      // index into kFormatSpecifiers, -1 when unnamed
      u32 flags;          // DisplayFlag bits of the specifier
      u32 memory_kind;
      u32 vector_kind;
      u32 matrix_kind;
      bool has_columns;   // "/c" given
      bool has_count;     // "/n" given
      u64 columns;
      u64 element_count;
      ExprNode *expression;  // the count, or a memory view's ending address; may be null
    } format;
  };
};

struct ExprPool {
  ExprNode *free_list;
  u32 free_count;
  ExprNode nodes[kExprPoolCapacity];
};

// Puts every node of the pool on its free list.
void InitExprPool(ExprPool *pool);
// Pops a zeroed node of the given kind; null when the pool is empty.
ExprNode *ExprTakeNode(ExprPool *pool, u32 kind);
// Returns a tree (or null) to the pool, descending by kind.
void ExprFreeTree(ExprPool *pool, ExprNode *node);
