defmodule Stack do
  use GenServer

  def start_link(items) do
    GenServer.start_link(__MODULE__, items, name: __MODULE__)
  end

  def push(item), do: GenServer.cast(__MODULE__, {:push, item})
  def pop, do: GenServer.call(__MODULE__, :pop)

  @impl true
  def init(items), do: {:ok, items}

  @impl true
  def handle_call(:pop, _from, [head | tail]) do
    {:reply, head, tail}
  end

  @impl true
  def handle_cast({:push, item}, state) do
    {:noreply, [item | state]}
  end
end
