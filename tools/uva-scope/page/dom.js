// What all parts of the page use.

/// A new element: attributes, or listeners where the name begins with "on", and children.
export function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (value !== false && value !== undefined) element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.filter((child) => child !== undefined && child !== null));
  return element;
}

export const byId = (id) => document.getElementById(id);

/// Replaces what an element has, unless it is the same: what a reader has selected stays.
export function put(element, ...children) {
  const next = make("div", {}, ...children);
  if (next.innerHTML !== element.innerHTML) element.replaceChildren(...next.childNodes);
}

export function seconds(value) {
  if (typeof value !== "number") return "–";
  if (value < 60) return `${value.toFixed(1)} s`;
  const whole = Math.floor(value);
  const part = (number) => String(number).padStart(2, "0");
  const minutes = Math.floor(whole / 60) % 60;
  return whole < 3600 ? `${minutes}:${part(whole % 60)}` : `${Math.floor(whole / 3600)}:${part(minutes)}:${part(whole % 60)}`;
}

export function bytes(value) {
  if (typeof value !== "number") return "–";
  const units = ["B", "kB", "MB", "GB"];
  let unit = 0;
  while (value >= 1000 && unit < units.length - 1) {
    value /= 1000;
    ++unit;
  }
  return `${unit === 0 ? value : value.toFixed(1)} ${units[unit]}`;
}

export const list = (value) => (Array.isArray(value) ? value : []);

/// Asks the server. Gives its answer, JSON or a picture; throws with what keeps it from one.
export async function post(path, wish) {
  const response = await fetch(path, { method: "POST", body: JSON.stringify(wish) });
  if (response.headers.get("Content-Type") === "image/png") return response.blob();
  const answer = await response.json().catch(() => ({ error: `the server answers ${response.status}` }));
  if (answer.error) throw new Error(answer.error);
  return answer;
}
