// Only on the page that is served: draws each document that the program sends. While the page is
// not seen, or busy with one, it draws only the latest of those that came.
{
  const state = document.createElement("p");
  state.id = "live";
  state.className = "under";
  state.setAttribute("role", "status");
  document.querySelector("header").append(state);

  let waiting = null;
  const events = new EventSource("events");
  events.onopen = () => { state.textContent = "Live: this page follows the run."; };
  events.onmessage = event => {
    const isAsked = waiting !== null;
    waiting = event.data;
    if (isAsked) return;
    requestAnimationFrame(() => {
      const document_ = JSON.parse(waiting);
      waiting = null;
      draw(document_);
    });
  };
  events.onerror = () => {
    state.textContent = events.readyState === EventSource.CLOSED
      ? "Not live: the program refused. Load the page again to try again."
      : "Not live: the program does not answer. Trying again.";
  };
}
