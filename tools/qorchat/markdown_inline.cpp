// The spans and text of a rendered reply: styles, links, entities, breaks.
#include <md4c.h>

#include "display.h"
#include "markdown_renderer.h"

namespace qorchat::markdown {

// An attribute's text (a link's URL, a code block's language) with its entities decoded.
std::string attributeText(const MD_ATTRIBUTE& attribute) {
  std::string out;
  // An absent attribute (an indented code block's language) has no substrings at all.
  if (attribute.size == 0) return out;
  for (std::size_t i = 0; attribute.substr_offsets[i] < attribute.size; ++i) {
    const std::string_view part(attribute.text + attribute.substr_offsets[i],
                                attribute.substr_offsets[i + 1] - attribute.substr_offsets[i]);
    if (attribute.substr_types[i] == MD_TEXT_ENTITY) {
      out += markdown::decodedEntity(part);
    } else if (attribute.substr_types[i] == MD_TEXT_NULLCHAR) {
      out += "\uFFFD";
    } else {
      out += part;
    }
  }
  return out;
}

int Renderer::enterSpan(MD_SPANTYPE type, void* detail) {
  unsigned style = currentStyle();
  switch (type) {
    case MD_SPAN_EM:
      style |= markdown::kItalic;
      break;
    case MD_SPAN_STRONG:
      style |= markdown::kBold;
      break;
    case MD_SPAN_U:
      style |= markdown::kUnderline;
      break;
    case MD_SPAN_DEL:
      style |= markdown::kStrike;
      addMarker("~~");
      break;
    case MD_SPAN_CODE:
      style |= markdown::kCode;
      addMarker("`");
      break;
    case MD_SPAN_A:
      links_.push_back(
          {target().size(), attributeText(static_cast<MD_SPAN_A_DETAIL*>(detail)->href)});
      break;
    case MD_SPAN_IMG:
      links_.push_back(
          {target().size(), attributeText(static_cast<MD_SPAN_IMG_DETAIL*>(detail)->src)});
      break;
    default:
      break;
  }
  styles_.push_back(style);
  return 0;
}

int Renderer::leaveSpan(MD_SPANTYPE type) {
  styles_.pop_back();
  if (type == MD_SPAN_DEL) addMarker("~~");
  if (type == MD_SPAN_CODE) addMarker("`");
  if (type == MD_SPAN_A || type == MD_SPAN_IMG) leaveLink();
  return 0;
}

// A link reads "text (url)"; one whose text is its URL reads as the URL alone.
void Renderer::leaveLink() {
  const Link link = std::move(links_.back());
  links_.pop_back();
  Pieces& pieces = target();
  const std::string url = terminalSafe(link.url);
  const Pieces text(pieces.begin() + static_cast<std::ptrdiff_t>(link.firstPiece), pieces.end());
  if (url.empty() || markdown::plainText(text) == url) return;
  pieces.push_back({Piece::Kind::kSpace, " ", 0});
  pieces.push_back({Piece::Kind::kText, "(", currentStyle()});
  pieces.push_back({Piece::Kind::kText, url, currentStyle() | markdown::kDim});
  pieces.push_back({Piece::Kind::kText, ")", currentStyle()});
}

int Renderer::addText(MD_TEXTTYPE type, std::string_view text) {
  if (inCode_) {
    code_ += text;
    return 0;
  }
  switch (type) {
    case MD_TEXT_BR:
      target().push_back({Piece::Kind::kBreak, "", 0});
      break;
    case MD_TEXT_SOFTBR:
      target().push_back({Piece::Kind::kSpace, " ", 0});
      break;
    case MD_TEXT_NULLCHAR:
      markdown::appendWords(target(), "\uFFFD", currentStyle());
      break;
    case MD_TEXT_ENTITY:
      markdown::appendWords(target(), terminalSafe(markdown::decodedEntity(text)), currentStyle());
      break;
    default:
      markdown::appendWords(target(), terminalSafe(text), currentStyle());
      break;
  }
  return 0;
}

}  // namespace qorchat::markdown
