/*
 * The condition language of query conditions: operator phrases, comparison of
 * two values of an item type, and the post-judge that parses a condition text
 * against an entity's item table and judges a row with it.
 *
 * A condition is a field name, an operator phrase and a value, followed by any
 * number of clauses "connector operator value", all testing that one field:
 *     speed > 100 and not greater than 1000
 * Words are separated by blanks. Connectors: "&&", "and", "||", "or"; clauses
 * are joined from left to right without precedence. Limits: 32 words, 4
 * connectors.
 *
 * The expression nodes, rows and lists are those of the condition context
 * (condContext, gcondCtx) of mgi_app.h. Nothing here locks: the lists are
 * the serving thread's, one request and one walk at a time.
 */
#ifndef MGMT_COND_H
#define MGMT_COND_H

#include <stdint.h>

#include "mgmt/export.h"
#include "mgmt/mgi_app.h"

MGMT_BEGIN_DECLS

/* ---------------------------------------------------------------- operators and comparison */

/*
 * The canonical operators, as find_match_op_symbol returns them (pointers to
 * the library's own literals) and as the judge compares them, by string:
 * "match", "unmatch", "gt", "lt", "ngt", "nlt".
 */

/*
 * The canonical operator of the phrase words[0..count), one to three words,
 * matched exactly (case counts); null for any other count or phrase. Three
 * words are "no" or "not" before a two-word phrase meaning "gt" (gives "ngt")
 * or "lt" (gives "nlt"). Null words gives null.
 */
MGMT_API const char *find_match_op_symbol(char *const *words, int count);
/* The two-word phrases: "not match"/"not equal", "bigger than"/"greater than", "less than"/"smaller than". */
MGMT_API const char *find_match_op_symbol_with2str(char *const *words);

/*
 * Values of item type `type` (APP_ITEM_*) stored at a and b. match: 1 when
 * equal. less: 1 when the value at b is below the value at a (the smaller
 * candidate second). A truth value is always "less"; a type without a rule is
 * both equal and less. A null pointer gives 0 for a type with a rule. Kept
 * on purpose: a MAC address (type 12) is equal by strcmp and less by strncmp
 * of 6 bytes, unlike each other.
 */
MGMT_API int logic_compare_match(uint32_t type, const void *a, const void *b);
MGMT_API int logic_compare_less(uint32_t type, const void *a, const void *b);

/* ---------------------------------------------------------------- judging */

/* Codes of retrieve_postJudge_stdExpr and default_post_logic_analyze. */
#define COND_ERR_NO_WORD (-1)          /* the text has no word */
#define COND_ERR_BAD_NODE (-2)         /* unknown operator or connector in a node */
#define COND_ERR_NO_ENTITY (-1499)     /* no entity at the path */
#define COND_ERR_NO_OPERATOR (-1986)   /* a phrase is no operator */
#define COND_ERR_WORDS (-1987)         /* more than 32 words */
#define COND_ERR_CONNECTORS (-1988)    /* more than 4 connectors */
#define COND_ERR_NO_READING (-1989)    /* the value's type has no reading */
#define COND_ERR_NO_ITEM (-1990)       /* field name not in the item table, or no table */
#define COND_ERR_MAC (-1992)           /* bad MAC text */
#define COND_ERR_IPV4 (-1994)          /* bad IPv4 text */
#define COND_ERR_INT64 (-1995)         /* 64-bit reading */
#define COND_ERR_UINT32 (-1997)        /* unsigned reading */
#define COND_ERR_INT32 (-1998)         /* signed reading */
#define COND_ERR_BOOL (-1999)          /* truth value neither "true" nor "false" */

/*
 * Parses `expression` for the entity at `path` (zero-terminated target words):
 * its words go to heap copies in words[0..32), the word positions of its
 * connectors to connectors[0..4) (-1 behind the last), and one node per clause
 * is appended to expr_list, with the item's type and offset. 0 or a COND_ERR_*
 * code; on failure words, connectors and expr_list keep what was placed
 * (destruct_cond_context, or free_record_words and free_expr_list_all, release
 * it); -1 also for a null expression, words, connectors or expr_list. Kept on
 * purpose: each step of the word scan starts again at the text's start and
 * gets its first word, so a text with a first word always ends at -1987
 * (-1988 when that word is a connector).
 */
MGMT_API int retrieve_postJudge_stdExpr(const uint32_t *path, const char *expression, char **words,
                                        int32_t *connectors, cond_expr_list *expr_list);

/*
 * Judges the first row of data_list by the nodes of expr_list. A row whose
 * verdict is false is taken off the list (not freed); a row that passes stays.
 * 0 in both cases, and for an empty list of either kind; otherwise a COND_ERR_*
 * code, and the row stays. The row is the list node itself: its second
 * pointer-sized word is its link, and each item lies at its offset from the
 * row's start. Kept on purpose: a value of type 1, 2 or 3 is refused for any
 * text (-1998, -1997, -1995), and a comparison gets the parsed value's record
 * (its type code first), not the value; string and MAC values are not freed.
 */
MGMT_API int default_post_logic_analyze(cond_data_list *data_list, cond_expr_list *expr_list);

/* The pre-judge stage: does nothing, 0. */
MGMT_API int retrieve_preJudge_stdExpr(void);
MGMT_API int default_pre_logic_analyze(void);

/* Frees the 32 strings of words (nothing when words[0] is null); the slots are left null. */
MGMT_API void free_record_words(char **words);
/* Free every node of a list and leave it empty. */
MGMT_API void free_expr_list_all(cond_expr_list *list);
MGMT_API void free_data_list_all(cond_data_list *list);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(cond_expr_node) == 4 * sizeof(void *) + 8 + sizeof(void *), "expression node");
static_assert(offsetof(cond_expr_node, type) == 4 * sizeof(void *), "expression node: type behind the strings");
#endif

#endif
