def test_moved_actor_reaches_the_peer(ed, K, connect, tick):
    chair = ed.spawn("StaticMeshActor", label="Chair", mesh=ed.make_mesh("/Game/Props/Chair"))
    peer = connect()
    ed.move(chair, location=(1, 2, 3))
    tick(1.0)
    assert [m["t"] for m in peer.take()] == ["xf"]
    assert peer.actors[chair.get_path_name()]["xf"][:3] == [1, 2, 3]
