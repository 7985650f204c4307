#pragma once
// Turns the database structure JSON into the USE CATALOG and CREATE lines that the model reads.
//
// The structure is a root array of catalogs {catalog_id?, catalog_name?, schemas[]}; a schema is
// {schema_id?, schema_name?, tables?[], views?[], mviews?[]}; an object is {name, fields[{name,
// type}], pkeys?[], fkeys?[{fields[], ref_schema?, ref_table, ref_fields[]}]}. A present key must
// have its type (a JSON null is a wrong type). A bad catalog or schema is passed over; a bad object
// leaves an empty line in its place. Each of these raises the debug assertion "false".
//
// Catalogs without a name (or with an empty one) come first, in reverse input order, then the
// named ones in input order: the result of moving each unnamed catalog, from the second on, to the
// front in one pass. Schemas and objects keep their order.
//
// The text is built straight from one parse into one buffer, since it is rebuilt for every request
// and a database can be large.

#include <string>
#include <string_view>

#include "qor.h"

namespace QORDatabaseDigest {

// The digest tree of a stored structure text. The text is parsed in its own buffer, so a caller
// that no longer needs it moves it in.
YLVariantList buildTree(std::string structure);
// The digest text of a stored structure text: the lines of the tree, each ended by a line feed.
std::string buildText(std::string structure);
// True for a catalog map of the tree without a catalog_name or with an empty one.
bool lacksCatalogName(const YLVariant& catalog);

}  // namespace QORDatabaseDigest
